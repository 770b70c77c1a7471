#include "tokens.h"
