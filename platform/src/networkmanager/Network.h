#pragma once

#include "live/NetworkFacts.h"
#include "networkmanager/Modems.h"
#include "networkmanager/ObjectHandles.h"

#include <NetworkManager.h>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace trilba::live {

/// NetworkManager's view of the machine. Main-loop thread only.
class Network {
public:
    /// Begins to ask; `onChange` runs when there may be something new.
    Network(GDBusConnection* bus, std::function<void()> onChange);
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    ~Network() = default;

    /// With what the modems tell of their networks.
    [[nodiscard]] NetworkFacts facts(const Modems& modems) const;

    /// Whether NetworkManager has answered, or does not run.
    [[nodiscard]] bool hasAnswered() const { return client_ != nullptr; }

private:
    void ask();
    void askLater();
    void onClient(GAsyncResult* result);
    void look();
    void listen(gpointer object, const char* signal);
    void listenBelow(NMDevice* device, int levels);

    Object<GDBusConnection> bus_;
    std::function<void()> onChange_;
    Object<NMClient> client_;
    std::vector<SignalHandler> handlers_;
    OneShot lookSoon_; // after all that came in one message
    OneShot askAgain_;
    PendingAnswers pending_;
};

} // namespace trilba::live
