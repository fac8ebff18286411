#include "trilba/Debug.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string_view>

namespace {

// The loader looks for the name that the linker found in the library: its SONAME.
TEST(Soname, ProgramsAskForVersion1) {
    Dl_info library{};
    ASSERT_NE(dladdr(reinterpret_cast<const void*>(&trilba::Debug::init), &library), 0);
    EXPECT_TRUE(std::string_view(library.dli_fname).ends_with("/libtrilbacore.so.1"))
        << library.dli_fname;
}

} // namespace
