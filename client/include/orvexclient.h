#pragma once

// The one header that programs include.
#include "orvex-client.h"
#include "orvex-enums.h"
#include "orvex-error.h"
#include "orvex-request.h"
