#include "ZorvQuery.h"
