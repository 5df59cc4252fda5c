"""Runs the real installer in a safe Wine prefix and tells what it did."""
