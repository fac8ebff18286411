"""Real servers with the examples' configurations."""

import os
import pwd
import socket
import time

from harness.process import Process
from harness.settings import ROOT, patience

EXAMPLES = ROOT / "examples" / "server"
KEYS_OF_THE_EXAMPLES = "/etc/slp"

NGINX = """\
user www-data;
worker_processes 1;
daemon off;
pid {directory}/nginx.pid;
error_log stderr;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {directory}/body;
    proxy_temp_path {directory}/proxy;
    {more}
    include {example};
}}
"""
APACHE_MODULES = (
    "mpm_event authn_core authz_core authz_host headers proxy proxy_http reqtimeout socache_shmcb ssl unique_id"
)
APACHE = """\
ServerRoot {directory}
ServerName localhost
PidFile {directory}/apache.pid
ErrorLog /dev/stderr
User www-data
Group www-data
Listen 443
{modules}
{more}
Include {example}
"""
HAPROXY = """\
global
    user haproxy
    group haproxy
    {more}
"""
SQUID = """\
pid_filename {directory}/squid.pid
access_log none
cache_log /dev/null
shutdown_lifetime 0 seconds
"""


class ServerProcess:
    """A server of Debian's in the foreground, started with a configuration; ready when it listens."""

    def __init__(self, directory, name, command, port):
        self.directory = directory
        self.process = Process(command, directory, name, environment={"PATH": os.environ["PATH"]})
        self._await(port)

    def _await(self, port):
        deadline = time.monotonic() + patience(15)
        while True:
            assert self.process.status is None, self.report()
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", port)) == 0:
                    return
            assert time.monotonic() < deadline, f"nothing listens on {port}\n{self.report()}"
            time.sleep(0.02)

    def report(self):
        return self.process.report()

    def stop(self):
        self.process.stop(20)  # and not by force, which would leave its workers behind


class Kitchen:
    """Where servers are made: a directory with keys, and the examples with this machine's places."""

    def __init__(self, directory, keys):
        self.directory = directory
        os.chmod(directory, 0o755)
        self._keys = directory / "keys"
        self._keys.mkdir()
        for name, sources in {
            "server.pem": ["server.pem"],
            "server-key.pem": ["server-key.pem"],
            "server-and-key.pem": ["server.pem", "server-key.pem"],
            "clients-CA.pem": ["Positioning_CA.pem"],
        }.items():
            text = "".join((keys / source).read_text("ascii") for source in sources)
            (self._keys / name).write_text(text, "ascii")
        self._servers = []

    def example(self, name, changes=()):
        """The path of a copy of an example; each change is a text and what takes its place."""
        text = (EXAMPLES / name).read_text("utf-8")
        assert KEYS_OF_THE_EXAMPLES in text or "3128" in text
        for before, after in [(KEYS_OF_THE_EXAMPLES, str(self._keys)), *changes]:
            assert before in text or before == KEYS_OF_THE_EXAMPLES, before
            text = text.replace(before, after)
        return self.write(f"example-{name}", text)

    def nginx(self, changes=(), more=""):
        main = NGINX.format(
            directory=self.directory, example=self.example("nginx.conf", changes), more=more
        )
        return self._start("nginx", ["nginx", "-c", self.write("nginx-main.conf", main)], 443)

    def apache(self, changes=(), more=""):
        modules = "\n".join(
            f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so"
            for name in APACHE_MODULES.split()
        )
        main = APACHE.format(
            directory=self.directory,
            modules=modules,
            more=more,
            example=self.example("apache.conf", changes),
        )
        path = self.write("apache-main.conf", main)
        return self._start("apache2", ["apache2", "-DFOREGROUND", "-f", path], 443)

    def haproxy(self, changes=(), more=""):
        main = self.write("haproxy-main.cfg", HAPROXY.format(more=more))
        example = self.example("haproxy.cfg", changes)
        return self._start("haproxy", ["haproxy", "-db", "-f", main, "-f", example], 443)

    def squid(self):
        more = SQUID.format(directory=self.directory)
        path = self.example("squid.conf", [("cache deny all\n", f"cache deny all\n{more}")])
        return self._start("squid", ["squid", "-N", "-f", path], 3128)

    def tinyproxy(self):
        user = pwd.getpwuid(65534).pw_name
        changes = [("User tinyproxy", f"User {user}"), ("Group tinyproxy", "Group nogroup")]
        path = self.example("tinyproxy.conf", changes)
        return self._start("tinyproxy", ["tinyproxy", "-d", "-c", path], 3128)

    def write(self, name, text):
        """A file in the directory of the servers; its path."""
        path = self.directory / name
        path.write_text(text, "utf-8")
        return path

    def _start(self, name, command, port):
        self._servers.append(ServerProcess(self.directory, name, command, port))
        return self._servers[-1]

    def close(self):
        for server in self._servers:
            server.stop()

    def report(self):
        return "\n".join(server.report() for server in self._servers)
