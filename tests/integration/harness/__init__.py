"""What the integration tests are made of: a private bus, a server, a daemon, clients."""
