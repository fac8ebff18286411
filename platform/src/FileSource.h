#pragma once

#include "IPlatformSource.h"

#include <memory>
#include <vector>

namespace trilba {

/// The platform file is all there is to know.
class FileSource final : public IPlatformSource {
public:
    void follow(const std::shared_ptr<const Settings>& file) override { state_ = file; }
    [[nodiscard]] std::shared_ptr<const Settings> state() const override { return state_; }
    [[nodiscard]] bool hasAnswered() const override { return true; }
    [[nodiscard]] std::vector<Remark> remarks() const override { return {}; }

private:
    std::shared_ptr<const Settings> state_ = std::make_shared<const Settings>();
};

} // namespace trilba
