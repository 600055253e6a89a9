"""The operations server's side of a gateway: its commands, and a client that sends them."""
