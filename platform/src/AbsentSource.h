#pragma once

#include "Answers.h"
#include "IPlatformSource.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace trilba {

/// Stands in for a live source that cannot be had: there is no connection.
class AbsentSource final : public IPlatformSource {
public:
    explicit AbsentSource(std::string fault) : fault_(std::move(fault)) {}

    void follow(const std::shared_ptr<const Settings>& /*file*/) override {}
    [[nodiscard]] std::shared_ptr<const Settings> state() const override { return state_; }
    [[nodiscard]] bool hasAnswered() const override { return true; }
    [[nodiscard]] std::vector<Remark> remarks() const override {
        return {{"the NetworkManager source cannot be used: " + fault_, true}};
    }

private:
    const std::string fault_;
    const std::shared_ptr<const Settings> state_ =
        std::make_shared<const Settings>(LiveState::initial());
};

} // namespace trilba
