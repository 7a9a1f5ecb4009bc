#include "applier.h"

typedef int applier_unit;
