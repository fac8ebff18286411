"""The daemon wants root; a user namespace of our own, bus included, is as good."""

import os
import sys

import pytest

_INSIDE = "ORVEXD_TESTS_IN_NAMESPACE"


def become_root(config):
    """Starts pytest anew in a user namespace, unless this is root. For pytest_cmdline_main."""
    if os.geteuid() == 0:
        return
    if os.environ.get(_INSIDE):
        pytest.exit("a user namespace was made and we are still not root in it", 1)
    config.pluginmanager.getplugin("capturemanager").stop_global_capturing()
    os.environ[_INSIDE] = "1"
    command = ["unshare", "--user", "--map-root-user", sys.executable, "-m", "pytest"]
    os.execvp(command[0], [*command, *config.invocation_params.args])
