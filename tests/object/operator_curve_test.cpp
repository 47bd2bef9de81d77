#include "object/operator_curve.h"

#include <gtest/gtest.h>
