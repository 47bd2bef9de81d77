#include "vellgrund/convolution.h"

#include <gtest/gtest.h>
