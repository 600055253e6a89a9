/* The load generator's own MQTT peer: subscribes with QoS 0 and hands payloads on, publishes with QoS 1 and
 * does not wait. It is written by hand so that a library's threads and waits never limit what is measured.
 * Failures end the program: without its server there is nothing to measure. */
#ifndef LOAD_MQTT_H
#define LOAD_MQTT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct load_mqtt {
    int sock = -1;
    std::vector<uint8_t> received; /* bytes of packets that are not complete yet */
    uint16_t packet_id = 0;
};

/* Connects to 127.0.0.1:`port` with a clean session and no keep-alive, and waits for the CONNACK. */
void load_mqtt_connect(load_mqtt *mqtt, uint16_t port);

/* Waits for the SUBACK. */
void load_mqtt_subscribe(load_mqtt *mqtt, std::string_view topic);

void load_mqtt_publish(load_mqtt *mqtt, std::string_view topic, std::string_view payload);

/* Reads what the socket holds, without waiting, and appends the payload of every PUBLISH to `payloads`. */
void load_mqtt_read(load_mqtt *mqtt, std::vector<std::string> *payloads);

#endif
