#include "networkmanager/Modems.h"

#include <set>

namespace trilba::live {

namespace {

constexpr const char* kName = "org.freedesktop.ModemManager1";

/// The libraries' own functions for this print a warning when an object has no such interface.
template <typename T> Object<T> interfaceOf(MMObject* object, const char* name, GType type) {
    Object<GDBusInterface> found(g_dbus_object_get_interface(G_DBUS_OBJECT(object), name));
    const bool isOne = found && G_TYPE_CHECK_INSTANCE_TYPE(found.get(), type);
    return Object<T>(isOne ? reinterpret_cast<T*>(found.release()) : nullptr);
}

Object<MMModem> modemOf(MMObject* object) {
    return interfaceOf<MMModem>(object, "org.freedesktop.ModemManager1.Modem", MM_TYPE_MODEM);
}

Object<MMModem3gpp> mobileNetworkOf(MMObject* object) {
    return interfaceOf<MMModem3gpp>(object, "org.freedesktop.ModemManager1.Modem.Modem3gpp",
                                    MM_TYPE_MODEM_3GPP);
}

/// A modem may tell several lines.
std::string firstLine(const char* text) {
    const std::string lines = textOf(text);
    return lines.substr(0, lines.find_first_of("\r\n"));
}

using Objects = std::vector<Object<MMObject>>;

Objects objectsOf(MMManager* manager) {
    Objects objects;
    GList* list = g_dbus_object_manager_get_objects(G_DBUS_OBJECT_MANAGER(manager));
    for (GList* each = list; each != nullptr; each = each->next) {
        objects.emplace_back(MM_OBJECT(each->data)); // the list's reference
    }
    g_list_free(list);
    return objects;
}

bool isLocked(MMModem* modem) {
    return mm_modem_get_state(modem) == MM_MODEM_STATE_LOCKED;
}

} // namespace

Modems::Modems(GDBusConnection* bus, std::function<void()> onChange)
    : bus_(shared(bus)),
      onChange_(std::move(onChange)),
      lookSoon_([this] { look(); }),
      askAgain_([this] { ask(); }) {
    const auto onAppeared =
        +[](GDBusConnection*, const char*, const char*, gpointer self) noexcept {
            static_cast<Modems*>(self)->onAppeared();
        };
    const auto onVanished = +[](GDBusConnection*, const char*, gpointer self) noexcept {
        static_cast<Modems*>(self)->onVanished();
    };
    watch_ = g_bus_watch_name_on_connection(bus, kName, G_BUS_NAME_WATCHER_FLAGS_NONE, onAppeared,
                                            onVanished, this, nullptr);
}

Modems::~Modems() {
    g_bus_unwatch_name(watch_);
}

void Modems::onAppeared() {
    hasAnswered_ = false;
    ask();
    onChange_();
}

/// For the modems, or, when they are known, for the cards that have not been told.
void Modems::ask() {
    if (manager_) {
        look();
        return;
    }
    mm_manager_new(bus_.get(), G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_DO_NOT_AUTO_START,
                   pending_->cancellable(), &PendingAnswers::arrive,
                   pending_->expect([this](GObject*, GAsyncResult* result) { onManager(result); }));
}

void Modems::onVanished() {
    pending_ = std::make_unique<PendingAnswers>();
    askAgain_.stop();
    lookSoon_.stop();
    questions_ = 0;
    handlers_.clear();
    cards_.clear();
    manager_.reset();
    hasAnswered_ = true;
    onChange_();
}

void Modems::onManager(GAsyncResult* result) {
    manager_.reset(mm_manager_new_finish(result, nullptr));
    hasAnswered_ = manager_ != nullptr;
    if (hasAnswered_) {
        look();
    } else {
        askLater();
    }
}

void Modems::askLater() {
    askAgain_.runAt(g_get_monotonic_time() + kPauseBeforeAskingAgain);
}

void Modems::listen(gpointer object, const char* signal) {
    // The arguments of these signals differ, but the object that sends comes first and `this` last.
    // The library's mutex is locked during some of them, so nothing can be looked at.
    const auto onNotify = +[](gpointer, gpointer, gpointer self) noexcept {
        static_cast<Modems*>(self)->lookSoon_.runAt(0);
    };
    handlers_.emplace_back(object, signal, G_CALLBACK(onNotify), this);
}

/// Listens to all that there is now. Handlers come and go with the objects.
void Modems::look() {
    const auto old = std::exchange(handlers_, {});
    if (manager_) {
        listen(manager_.get(), "object-added");
        listen(manager_.get(), "object-removed");
        std::set<std::string> paths;
        for (const auto& object : objectsOf(manager_.get())) {
            lookAt(object.get());
            paths.insert(mm_object_get_path(object.get()));
        }
        std::erase_if(cards_, [&](const auto& card) { return !paths.contains(card.first); });
    }
    onChange_();
}

void Modems::lookAt(MMObject* object) {
    if (const auto modem = modemOf(object)) {
        for (const char* signal :
             {"notify::equipment-identifier", "notify::revision", "notify::sim", "notify::state"}) {
            listen(modem.get(), signal);
        }
        askForCard(mm_object_get_path(object), modem.get());
    }
    if (const auto network = mobileNetworkOf(object)) {
        listen(network.get(), "notify::registration-state");
    }
    listen(object, "interface-added");
    listen(object, "interface-removed");
}

/// A card is an object of its own, which is asked for once.
void Modems::askForCard(const std::string& modem, MMModem* interface) {
    Card& card = cards_[modem];
    const std::string path = textOf(mm_modem_get_sim_path(interface));
    if (card.sim) {
        listen(card.sim.get(), "notify::imsi");
    }
    if (card.path == path) {
        return;
    }
    card = {path, nullptr};
    if (path.empty() || path == "/") {
        return;
    }
    ++questions_;
    mm_modem_get_sim(
        interface, pending_->cancellable(), &PendingAnswers::arrive,
        pending_->expect([this, modem, path](GObject* source, GAsyncResult* result) {
            --questions_;
            onCard(modem, path,
                   Object<MMSim>(mm_modem_get_sim_finish(MM_MODEM(source), result, nullptr)));
        }));
}

/// @param sim  null when there was no answer
void Modems::onCard(const std::string& modem, const std::string& path, Object<MMSim> sim) {
    const auto card = cards_.find(modem);
    if (card == cards_.end() || card->second.path != path) {
        return; // modem or card have gone in the meantime
    }
    if (sim) {
        card->second.sim = std::move(sim);
        look();
    } else {
        cards_.erase(card);
        askLater();
    }
}

std::map<std::string, ModemFacts> Modems::facts() const {
    std::map<std::string, ModemFacts> facts;
    for (const auto& object : manager_ ? objectsOf(manager_.get()) : Objects()) {
        const auto modem = modemOf(object.get());
        if (!modem) {
            continue;
        }
        const std::string path = mm_object_get_path(object.get());
        ModemFacts& told = facts[path];
        told.imei = textOf(mm_modem_get_equipment_identifier(modem.get()));
        told.firmware = firstLine(mm_modem_get_revision(modem.get()));
        const auto card = cards_.find(path);
        if (card != cards_.end() && card->second.sim && !isLocked(modem.get())) {
            told.imsi = textOf(mm_sim_get_imsi(card->second.sim.get()));
        }
        if (const auto network = mobileNetworkOf(object.get())) {
            told.registration = mm_modem_3gpp_get_registration_state(network.get());
        }
    }
    return facts;
}

} // namespace trilba::live
