#include "networkmanager/Modems.h"

namespace trilba::live {

namespace {

constexpr const char* kName = "org.freedesktop.ModemManager1";

std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
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
    : bus_(shared(bus)), onChange_(std::move(onChange)) {
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
    mm_manager_new(bus_.get(), G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_DO_NOT_AUTO_START,
                   pending_->cancellable(), &PendingAnswers::arrive,
                   pending_->expect([this](GObject*, GAsyncResult* result) { onManager(result); }));
}

void Modems::onVanished() {
    pending_ = std::make_unique<PendingAnswers>();
    questions_ = 0;
    handlers_.clear();
    cards_.clear();
    manager_.reset();
    hasAnswered_ = true;
    onChange_();
}

void Modems::onManager(GAsyncResult* result) {
    manager_.reset(mm_manager_new_finish(result, nullptr));
    hasAnswered_ = true; // or it will not answer
    look();
}

void Modems::listen(gpointer object, const char* signal) {
    // The arguments of these signals differ, but the object that sends comes first and `this` last.
    const auto onNotify =
        +[](gpointer, gpointer, gpointer self) noexcept { static_cast<Modems*>(self)->look(); };
    handlers_.emplace_back(object, signal, G_CALLBACK(onNotify), this);
}

/// Listens to all that there is now. Handlers come and go with the objects.
void Modems::look() {
    const auto old = std::exchange(handlers_, {}); // one of them may be running
    if (manager_) {
        listen(manager_.get(), "object-added");
        listen(manager_.get(), "object-removed");
        for (const auto& object : objectsOf(manager_.get())) {
            lookAt(object.get());
        }
    }
    onChange_();
}

void Modems::lookAt(MMObject* object) {
    if (MMModem* modem = mm_object_peek_modem(object); modem != nullptr) {
        for (const char* signal :
             {"notify::equipment-identifier", "notify::revision", "notify::sim", "notify::state"}) {
            listen(modem, signal);
        }
        askForCard(mm_object_get_path(object), modem);
    }
    if (MMModem3gpp* network = mm_object_peek_modem_3gpp(object); network != nullptr) {
        listen(network, "notify::registration-state");
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
    mm_modem_get_sim(interface, pending_->cancellable(), &PendingAnswers::arrive,
                     pending_->expect([this, modem, path](GObject* source, GAsyncResult* result) {
                         --questions_;
                         Object<MMSim> sim(
                             mm_modem_get_sim_finish(MM_MODEM(source), result, nullptr));
                         Card& asked = cards_[modem];
                         if (asked.path == path) {
                             asked.sim = std::move(sim);
                         }
                         look();
                     }));
}

std::map<std::string, ModemFacts> Modems::facts() const {
    std::map<std::string, ModemFacts> facts;
    for (const auto& object : manager_ ? objectsOf(manager_.get()) : Objects()) {
        MMModem* modem = mm_object_peek_modem(object.get());
        if (modem == nullptr) {
            continue;
        }
        const std::string path = mm_object_get_path(object.get());
        ModemFacts& told = facts[path];
        told.imei = textOf(mm_modem_get_equipment_identifier(modem));
        told.firmware = firstLine(mm_modem_get_revision(modem));
        const auto card = cards_.find(path);
        if (card != cards_.end() && card->second.sim && !isLocked(modem)) {
            told.imsi = textOf(mm_sim_get_imsi(card->second.sim.get()));
        }
        if (MMModem3gpp* network = mm_object_peek_modem_3gpp(object.get()); network != nullptr) {
            told.registration = mm_modem_3gpp_get_registration_state(network);
        }
    }
    return facts;
}

} // namespace trilba::live
