#pragma once

#include "platform/posix/errors.h"
