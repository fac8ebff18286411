#pragma once

// The daemon's names on the bus.

#define ORVEX_BUS_NAME "com.kelvra.orvexd"
#define ORVEX_INTERFACE "com.kelvra.orvexd"
#define ORVEX_PATH "/com/kelvra/orvexd"
