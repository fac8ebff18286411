"""The server of the benchmarks: what another client than the daemon may do with it."""

import ssl

import pytest

from harness.keys import make_keys
from harness.settings import BUILD_DIR
from harness.slp_peer import SlpPeer
from orvexd_bench.processes import Server

VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    directory = tmp_path_factory.mktemp("keys")
    make_keys(directory)
    return directory


@pytest.fixture(scope="module")
def server(keys):
    """Answers each request with three bytes."""
    server = Server(BUILD_DIR / "bin", keys)
    server.answer(3)
    yield server
    server.stop()


@pytest.mark.parametrize("version", VERSIONS)
def test_client_resumes_its_tls_session(server, keys, version):
    first = SlpPeer(server.port, keys)
    first.context.minimum_version = first.context.maximum_version = VERSIONS[version]
    assert first.open().ask(("other", b"question")).parts()["a1"] == b"ddd"
    second = SlpPeer(server.port, keys)
    second.context = first.context  # sessions belong to it
    second.open(first.sock.session)
    assert second.sock.session_reused
    assert second.ask(("other", b"question")).parts()["a1"] == b"ddd"
    first.close()
    second.close()
