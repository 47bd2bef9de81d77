#include "object/operator_adjustment.h"

#include <gtest/gtest.h>
