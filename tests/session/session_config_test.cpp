#include "session/session_config.h"

#include <gtest/gtest.h>
