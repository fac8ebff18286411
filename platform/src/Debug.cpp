#include "trilba/Debug.h"

namespace trilba {

void Debug::init() noexcept {}
void Debug::release() noexcept {}

} // namespace trilba
