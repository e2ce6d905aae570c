// Orders of an operator to login daemons, about their services.
#pragma once

#include "programs/ttylined/answer.h"
#include "programs/ttylined/server.h"

// Whether any client has announced a service that the order is about.
bool order_has_client(const server &srv, const tty_cmsg &order);

// Sends an order to every client with a service that fits, once each and with
// the process id under which it announced the service.
void order_send(server &srv, tty_cmsg order, const char *state, answer &reply);

// Tells that something went to a client.
void order_note_sent(answer &reply, unsigned client);

// Sessions of the clients that the order is about; without one those of all.
int order_count_sessions(const server &srv, const tty_cmsg *order);
