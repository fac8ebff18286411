#include "support/Deployment.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>

namespace orvexd {
namespace {

TEST(Deployment, ServerUrlIsHttpsWithAnExplicitPort) {
    EXPECT_TRUE(std::regex_match(deployment::kServerUrl, std::regex("https://[^/:]+:[0-9]+(/.*)?")))
        << deployment::kServerUrl;
}

TEST(Deployment, ValuesAreThoseOfTheConfiguration) {
    EXPECT_STREQ(deployment::kServerUrl, ORVEXD_SERVER_URL);
    EXPECT_STREQ(deployment::kSlpNamespace, ORVEXD_SLP_XMLNS);
}

} // namespace
} // namespace orvexd
