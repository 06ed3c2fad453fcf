#include "test_support.h"
