"""Modems: identity and roaming come from the real ModemManager; the network over one is played."""

from gi.repository import GLib

from harness import observe
from harness.observe import poll_for
from live.mock import CONNECTED_SITE, LIMITED, PORTAL
from live.modem import FIRMWARE, HOME, IMEI, IMSI, ROAMING
from live.tool import described

NONE, KIND_TWO, KIND_ONE, FLAGGED = 0, 1, 3, 5
ETHERNET, WIFI, MODEM, BOND, BRIDGE, WIREGUARD = 1, 2, 8, 10, 13, 29


def identity(bus):
    told, _ = described(bus)
    return told["imei"], told["imsi"], told["firmwareId"]


def wait_for_identity(bus, *wanted):
    poll_for(lambda: identity(bus) == wanted, 30, lambda: f"{wanted}, but {identity(bus)}")


def system_firmware(bus):
    return identity(bus)[2]


def test_identity_comes_from_modem_and_card(bus, wired, modems, modem, make_daemon, client_of, server):
    daemon = make_daemon(bus).start()
    client = client_of(bus)
    client.wait_for_status(KIND_ONE)
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)
    poll_for(lambda: sent_identity(client, server) == (IMEI, IMSI, FIRMWARE), 20, "the identity in a message")
    assert daemon.defect() is None


def sent_identity(client, server):
    """What a whole exchange carries."""
    client.exchange(b"who?", kind="other")
    terminal = server.wait(server.last)["slp"]["terminal"]
    return terminal.get("imei"), terminal.get("imsi"), terminal.get("fwId")


def test_identity_follows_the_card_and_the_modem(bus, wired, modems, modem):
    firmware = system_firmware(bus)
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)
    modems.stop()
    wait_for_identity(bus, "", "", firmware)
    modem.has_card = False
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, "", FIRMWARE)
    modems.stop()
    modem.has_card = True
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)


def test_modems_that_have_gone_leave_nothing_behind(played, daemon, client):
    service = played("org.freedesktop.ModemManager1")
    service.objects = GLib.Variant("(a{oa{sa{sv}}})", ({},))
    poll_for(lambda: service.questions > 0, 10, "the question for modems")
    observe.wait_until_idle(daemon.pid)
    client.settle()
    before = service.match_rules()
    for number in range(3):
        modem, card = f"{service.ROOT}/Modem/{number}", f"{service.ROOT}/SIM/{number}"
        service.add(modem, {"org.freedesktop.ModemManager1.Modem.Simple": {}})  # the others come later
        service.add(modem, {"org.freedesktop.ModemManager1.Modem": {"Sim": GLib.Variant("o", card)}})
        poll_for(lambda: service.match_rules() > before, 10, "interest in the card")
        service.remove(modem, ["org.freedesktop.ModemManager1.Modem", "org.freedesktop.ModemManager1.Modem.Simple"])
        poll_for(lambda: service.match_rules() == before, 10, lambda: f"{before} rules, but {service.match_rules()}")


def test_roaming_flags_the_mobile_network_in_use(bus, mocked, modems, modem, client):
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)
    device = mocked.add_device(MODEM, "Modem", udi=modems.enable())
    mocked.add_connection("gsm", device)
    client.wait_for_status(KIND_TWO)
    modem.register(ROAMING)
    client.wait_for_status(FLAGGED, 20)
    modem.register(HOME)
    client.wait_for_status(KIND_TWO, 20)
    wifi = mocked.add_device(WIFI, "Wireless")
    mocked.add_connection("802-11-wireless", wifi)
    client.wait_for_status(KIND_ONE)
    modem.register(ROAMING)
    told, _ = described(bus)
    assert not [each for each in told["connections"] if each["flagged"]]


def test_network_behind_a_login_does_not_count(mocked, client):
    mocked.add_connection("802-11-wireless", mocked.add_device(WIFI, "Wireless"))
    client.wait_for_status(KIND_ONE)
    mocked.set_manager(ConnectivityCheckEnabled=GLib.Variant("b", True), Connectivity=GLib.Variant("u", PORTAL))
    client.wait_for_status(NONE)
    limited = {"Connectivity": GLib.Variant("u", LIMITED), "State": GLib.Variant("u", CONNECTED_SITE)}
    mocked.set_manager(**limited)
    client.wait_for_status(KIND_ONE)


def test_bridge_counts_as_what_it_is_over(mocked, client):
    cable = mocked.add_device(ETHERNET, "Wired")
    bridge = mocked.add_device(BRIDGE, "Bridge")
    mocked.set(bridge, "org.freedesktop.NetworkManager.Device", Ports=GLib.Variant("ao", [cable]))
    mocked.add_connection("bridge", bridge)
    client.wait_for_status(KIND_ONE)


def test_bridge_hears_of_what_comes_below_the_device_below(mocked, client):
    bond, bridge = mocked.add_device(BOND, "Bond"), mocked.add_device(BRIDGE, "Bridge")
    device = "org.freedesktop.NetworkManager.Device"
    mocked.set(bridge, device, Ports=GLib.Variant("ao", [bond]))
    mocked.add_connection("bridge", bridge)
    client.wait_for_status(KIND_TWO)
    cable = mocked.add_device(ETHERNET, "Wired")
    mocked.set(bond, device, Ports=GLib.Variant("ao", [cable]))
    client.wait_for_status(KIND_ONE)


def test_tunnel_counts_as_what_it_is_over(mocked, client, bus):
    mocked.add_connection("gsm", mocked.add_device(MODEM, "Modem"), primary=False)
    mocked.add_connection("wireguard", mocked.add_device(WIREGUARD, "WireGuard"))
    client.wait_for_status(KIND_TWO)
    told, _ = described(bus)
    assert [each["name"].split("-")[0] for each in told["connections"]] == ["gsm"]
