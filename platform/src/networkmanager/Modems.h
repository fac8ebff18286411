#pragma once

#include "networkmanager/ObjectHandles.h"

#include <functional>
#include <libmm-glib.h>
#include <map>
#include <string>
#include <vector>

namespace trilba::live {

/// What a modem tells.
struct ModemFacts {
    std::string imei;
    std::string imsi; ///< empty while a PIN locks the card, or without a card
    std::string firmware;
    unsigned registration = 0; ///< MMModem3gppRegistrationState
};

/// ModemManager's modems, as they come and go. Main-loop thread only.
///
/// The library's object of all modems asks again, and waits for the answer, when it sees
/// ModemManager come back. So it is thrown away each time ModemManager goes.
class Modems {
public:
    Modems(GDBusConnection* bus, std::function<void()> onChange);
    Modems(const Modems&) = delete;
    Modems& operator=(const Modems&) = delete;
    ~Modems();

    /// By object path. Empty while ModemManager does not run.
    [[nodiscard]] std::map<std::string, ModemFacts> facts() const;

    /// Whether ModemManager has told its modems, or does not run.
    [[nodiscard]] bool areKnown() const { return hasAnswered_; }

    /// Whether it has answered all other questions, too.
    [[nodiscard]] bool hasAnswered() const { return hasAnswered_ && questions_ == 0; }

private:
    struct Card {
        std::string path;
        Object<MMSim> sim;
    };

    void onAppeared();
    void onVanished();
    void ask();
    void askLater();
    void onManager(GAsyncResult* result);
    void look();
    void lookAt(MMObject* object);
    void askForCard(const std::string& modem, MMModem* interface);
    void onCard(const std::string& modem, const std::string& path, Object<MMSim> sim);
    void listen(gpointer object, const char* signal);

    Object<GDBusConnection> bus_;
    std::function<void()> onChange_;
    bool hasAnswered_ = false;
    int questions_ = 0; // about cards
    Object<MMManager> manager_;
    std::vector<SignalHandler> handlers_;
    std::map<std::string, Card> cards_; // by the modem's object path
    OneShot lookSoon_;
    OneShot askAgain_;
    std::unique_ptr<PendingAnswers> pending_ = std::make_unique<PendingAnswers>();
    guint watch_ = 0;
};

} // namespace trilba::live
