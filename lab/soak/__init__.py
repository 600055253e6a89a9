"""The whole gateway under load, broken at random."""
