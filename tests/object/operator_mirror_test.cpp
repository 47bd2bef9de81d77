#include "object/operator_mirror.h"

#include <gtest/gtest.h>
