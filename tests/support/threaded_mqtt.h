// A transport whose instances run a real network thread each, as
// libmosquitto's do, against one simulated broker per process.
// threaded_mqtt::Create and threaded_mqtt::Destroy are the factory and
// releaser given to NewClientInternal; every entry may be called on any
// thread. Handlers run on the instance's network thread, never under the
// stand-in's lock.
//
// What libmosquitto would not survive is recorded as a violation instead, so
// that a test can assert it never happens and still come to an end: an
// instance stopped or released from its own network thread (libmosquitto
// cancels or fails to join that thread), an instance used after its release,
// and a non-forced stop of a loop that is not ending (a join for ever).
#ifndef DAXO_TEST_THREADED_MQTT_H
#define DAXO_TEST_THREADED_MQTT_H

#include <chrono>
#include <string>
#include <vector>

#include "mosquitto_interface.h"

namespace threaded_mqtt {

MosquittoInterface* Create(MosquittoInterface* mosqInterface, const char* id, int cleanSession,
                           void* callBackParam);
void Destroy(MosquittoInterface* mosqInterface);

// Up, the broker accepts every attempt (connect handler with 0), answers
// each subscription and completes each QoS 2 publish. Going down loses every
// connection (disconnect handler with MOSQ_ERR_CONN_LOST); each instance
// connects again by itself once the broker is back.
void SetBrokerUp(bool up);
// While held, QoS 2 completions are not delivered until released or until
// the client asks to disconnect: the broker's answer then reaches the
// handler just before the loop ends, while the disconnecting thread waits.
void HoldCompletions(bool hold);

// True on a network thread of the stand-in.
bool OnNetworkThread();

std::vector<std::string> Violations();
int Unreleased();  // made and not yet released
int Running();     // network threads that have not ended
// Waits until at least n instances have been made; false after bound.
bool AwaitMade(int n, std::chrono::milliseconds bound);

// Ends every network thread and forgets every instance and violation; the
// broker is up again and holds nothing. A thread that
// does not end within a few seconds is abandoned with its instances (a test
// that leaked a stuck client), and Reset returns false.
bool Reset();

}  // namespace threaded_mqtt

#endif
