#include "run/settings.h"

Settings settings;
