#include "support/Deployment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

TEST(Deployment, ServerUrlIsHttpsWithAnExplicitPort) {
    EXPECT_THAT(deployment::kServerUrl, testing::MatchesRegex("https://[^/:]+:[0-9]+(/.*)?"));
}

TEST(Deployment, ValuesAreThoseOfTheConfiguration) {
    EXPECT_STREQ(deployment::kServerUrl, ORVEXD_SERVER_URL);
    EXPECT_STREQ(deployment::kSlpNamespace, ORVEXD_SLP_XMLNS);
}

} // namespace
} // namespace orvexd
