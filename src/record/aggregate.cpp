#include "record/aggregate.h"

Aggregates aggregates;
