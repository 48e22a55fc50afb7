// What every test file includes.
#pragma once

#include <gtest/gtest.h>

#include "precompiled.h"
