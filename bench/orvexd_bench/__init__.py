"""Runs every benchmark beside its floor or peer and prints the ratios."""
