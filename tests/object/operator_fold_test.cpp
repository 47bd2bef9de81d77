#include "object/operator_fold.h"

#include <gtest/gtest.h>
