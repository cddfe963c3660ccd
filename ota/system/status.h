#pragma once
#include "system/manifest.h"
