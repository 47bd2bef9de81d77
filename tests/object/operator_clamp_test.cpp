#include "object/operator_clamp.h"

#include <gtest/gtest.h>
