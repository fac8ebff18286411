#pragma once

#include "IPlatformSource.h"
#include "live/ChangeTiming.h"
#include "live/Mapping.h"
#include "networkmanager/Modems.h"
#include "networkmanager/Network.h"
#include "networkmanager/ProxyQuestion.h"
#include "networkmanager/SystemBus.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trilba::live {

/// Answers from NetworkManager, ModemManager and the system's proxy resolver.
class NetworkManagerSource final : public IPlatformSource {
public:
    explicit NetworkManagerSource(ISourceOwner& owner);

    void follow(const std::shared_ptr<const Settings>& file) override;
    [[nodiscard]] std::shared_ptr<const Settings> state() const override { return state_; }
    [[nodiscard]] bool hasAnswered() const override;
    [[nodiscard]] std::vector<Remark> remarks() const override;

private:
    void onBusChanged();
    void onChanged();
    void onProxyAnswered();
    void see();
    void tell();
    [[nodiscard]] NetworkFacts facts() const;
    [[nodiscard]] Settings described() const;
    bool takeDetails();

    ISourceOwner& owner_;
    MappingOptions options_;
    std::shared_ptr<const Settings> state_;
    std::string identity_;        // of the list when the proxy was asked for last
    std::string inUse_;           // the connection in use when the list was told last
    std::vector<Remark> remarks_; // as they were when something changed last
    ChangeTiming timing_;
    OneShot tellLater_;
    ProxyQuestion proxy_;
    SystemBus bus_;
    std::optional<Modems> modems_;
    std::optional<Network> network_;
};

} // namespace trilba::live
