#include "vellgrund/convolution.h"
