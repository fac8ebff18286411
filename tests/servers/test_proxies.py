"""The daemon reaches the server through proxies of other people."""

import pytest

QUESTION = b"where am I?"


@pytest.mark.parametrize("proxy", ["squid", "tinyproxy"])
def test_exchange_goes_through_a_proxy(kitchen, application, platform, client, proxy):
    assert application
    kitchen.nginx()
    getattr(kitchen, proxy)()
    platform.write(proxy=("127.0.0.1", 3128))
    assert client.exchange(QUESTION) == [QUESTION]
