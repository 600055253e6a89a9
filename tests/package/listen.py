#!/usr/bin/python3
"""Tells that it has subscribed to a topic, and then the first message on it."""

from __future__ import annotations

import sys

import paho.mqtt.client as mqtt


def tell(client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
    print(message.payload.decode(), flush=True)
    client.disconnect()


client = mqtt.Client()
client.on_subscribe = lambda *_: print("subscribed", flush=True)
client.on_message = tell
client.connect("127.0.0.1", 1883)
client.subscribe(sys.argv[1], qos=1)
client.loop_forever()
