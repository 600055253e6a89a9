"""Peers of the daemon for the system tests: each starts, talks to or stands in for one real neighbour."""
