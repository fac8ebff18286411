"""A machine with a real NetworkManager and ModemManager, in namespaces of its own."""
