"""The operations server's HTTP side: it takes the files that a gateway streams, and gives those that it
fetches."""
