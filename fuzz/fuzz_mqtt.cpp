/*
 * fuzz_mqtt.cpp - libFuzzer target: arbitrary bytes split into the topic
 * name, frame property and payload of one MQTT 5 publish and decoded; an
 * accepted message is read through every getter, dumped, encoded again, and
 * the new publish must decode.
 */
#include "fuzzSetup.h"
#include "mqttWalk.h"

VELFUZZ_TARGET(velfuzz::walkMqtt)
