"""Random messages for a running daemon."""
