#include "object/operator_sharpen.h"

#include <gtest/gtest.h>
