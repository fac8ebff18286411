#include "inner/FakeSource.h"

#include "SourceModule.h"

namespace trilba {

namespace {

using test::FakeModule;

class FakeSource final : public IPlatformSource {
public:
    FakeSource() { ++FakeModule::instance().alive; }
    FakeSource(const FakeSource&) = delete;
    FakeSource& operator=(const FakeSource&) = delete;
    ~FakeSource() override { --FakeModule::instance().alive; }

    void follow(const std::shared_ptr<const Settings>& file) override {
        FakeModule::instance().file = file;
    }
    std::shared_ptr<const Settings> state() const override { return FakeModule::instance().state; }
    bool hasAnswered() const override { return true; }
    std::vector<Remark> remarks() const override { return {{"fake"}}; }
};

} // namespace

std::string SourceModule::path() {
    return "/fake";
}

bool SourceModule::isInstalled() {
    ++FakeModule::instance().lookedFor;
    return FakeModule::instance().isInstalled;
}

std::unique_ptr<IPlatformSource> SourceModule::makeSource(ISourceOwner& owner, std::string& fault) {
    FakeModule& module = FakeModule::instance();
    if (!module.fault.empty()) {
        fault = module.fault;
        return nullptr;
    }
    ++module.made;
    module.owner = &owner;
    return std::make_unique<FakeSource>();
}

namespace test {

FakeModule& FakeModule::instance() {
    static FakeModule module;
    return module;
}

} // namespace test

} // namespace trilba
