#include "object/operator_quantize.h"

#include <gtest/gtest.h>
