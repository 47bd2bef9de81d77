#include "object/operator_blur.h"

#include <gtest/gtest.h>
