#pragma once

/// Marks what libtrilbacore.so.1 shows to its users; everything else in it is hidden.
#define TRILBA_API __attribute__((visibility("default")))
