"""The proxy of the system's own resolver, which reads a desktop's settings here."""

import pytest

from harness.observe import poll_for
from live.cables import SERVER
from live.tool import described
from test_wired import KIND_ONE, travels

# A resolver whose settings are a file, in place of that of the process's environment, which nothing can change.
RESOLVER = {"GIO_USE_PROXY_RESOLVER": "gnome", "XDG_CURRENT_DESKTOP": "GNOME", "GSETTINGS_BACKEND": "keyfile"}


@pytest.fixture
def environment(tmp_path):
    return {**RESOLVER, "XDG_CONFIG_HOME": str(tmp_path / "config")}


@pytest.fixture
def daemon(make_daemon, bus, environment):
    daemon = make_daemon(bus)
    daemon.environment.update(environment)
    return daemon.start()


@pytest.fixture
def set_proxy(wired, tmp_path):
    """Chooses a proxy; the network stays as it is."""
    file = tmp_path / "config" / "glib-2.0" / "settings" / "keyfile"
    file.parent.mkdir(parents=True)

    def choose(host, port=443, kind="http"):
        text = "[system/proxy]\nmode='manual'\n" if host else ""
        if kind == "http":  # for a server that is reached by TLS
            kind = "https"
        text += f"[system/proxy/{kind}]\nhost='{host}'\nport={port}\n"
        aside = file.with_suffix(".new")
        aside.write_text(text, "utf-8")
        aside.replace(file)

    return choose


@pytest.fixture
def proxy(bus, environment):
    """What the tool tells about it."""

    def told():
        values, _ = described(bus, environment=environment)
        return values.get("proxyHost"), values.get("proxyPort")

    return told


def used_proxy(server):
    return server.wait(server.last)["proxy"]


def through_proxy(client, server):
    travels(client)
    return used_proxy(server) is not None


def test_proxy_is_set_changed_and_removed(set_proxy, server, client, proxy):
    client.wait_for_status(KIND_ONE)
    set_proxy(SERVER)
    poll_for(lambda: through_proxy(client, server), 10, "an exchange through the proxy")
    assert proxy() == (SERVER, 443)
    set_proxy("slp.kelvra.example")
    poll_for(lambda: proxy() == ("slp.kelvra.example", 443), 10, "the other proxy")
    assert through_proxy(client, server)
    set_proxy("")
    poll_for(lambda: not through_proxy(client, server), 10, "an exchange without a proxy")
    assert proxy() == (None, None)


def test_proxy_that_cannot_be_used_is_remarked(set_proxy, bus, environment):
    set_proxy("192.0.2.1", 1080, "socks")
    told, status = described(bus, environment=environment)
    assert "proxyHost" not in told and status == 1
    assert told["remarks"][0]["text"].startswith("the proxy socks")


def test_proxy_of_the_environment_is_used(wired, server, make_daemon, bus, client_of):
    daemon = make_daemon(bus)
    daemon.environment["https_proxy"] = f"http://{SERVER}:443"
    daemon.start()
    client = client_of(bus)
    client.wait_for_status(KIND_ONE)
    assert through_proxy(client, server)


def test_files_proxy_overrides_the_systems(set_proxy, server, client, platform_file, proxy):
    set_proxy("192.0.2.1", 1)
    platform_file(f"[Proxy]\nHost={SERVER}\nPort=443\n")
    client.wait_for_status(KIND_ONE)
    assert through_proxy(client, server)
    assert proxy() == (SERVER, 443)
    platform_file("[Proxy]\n")
    assert not through_proxy(client, server)
