"""A positioning server for tests, demos and client developers."""
