// The rules as a library, for tests/stress.

#include "models/RequestFate.h"

using Fate = orvexd::test::RequestFate;

static_assert(sizeof(Fate) == 16, "tests/stress/stress/request.py has the same members");

extern "C" {
const char* onAsked(Fate* fate) {
    return fate->onAsked();
}
const char* onSent(Fate* fate, int result, int isOpen) {
    return fate->onSent(result, isOpen != 0);
}
const char* onRefused(Fate* fate, int code) {
    return fate->onRefused(code);
}
const char* onChunk(Fate* fate, unsigned size, unsigned code) {
    return fate->onChunk(size, code);
}
const char* onNamed(Fate* fate, const char* message) {
    return fate->onNamed(message);
}
}
