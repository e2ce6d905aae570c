// The services that the daemon offers, with their admission rules in a form
// that can be asked quickly.
#pragma once

#include <stdint.h>
#include <sys/socket.h>

#include <ttyline/kit.h>

// A network; an IPv4 one in its IPv6-mapped form.
struct kit_net {
    uint8_t address[16];
    unsigned int bits;
};

// A list that is absent lets everybody in.
struct kit_nets {
    bool present;
    size_t count;
    kit_net *nets;
};

struct kit_ids {
    size_t count;
    uint32_t *ids;
};

struct kit_rules {
    kit_nets peers;
    kit_nets locals;
    bool by_identity; // users or groups was given
    kit_ids users;
    kit_ids groups;
    uint32_t most_sessions;
    uint32_t most_per_peer;
};

// One service. Nodes are never removed: sessions point to them.
struct kit_node {
    kit_node *next;
    const kit_service *service;
    int port;           // where it is now, see kit_service_moved()
    kit_rules *rules;   // guarded by the lock; null: everybody
    bool registered;    // with the session service
    bool stopped;       // by a command
    uint32_t listening; // families, as far as they were found; see listening.h
};

// The one lock of the kit: services, rules, the table of sessions. Never held
// while anything is waited for.
void kit_lock(void);
void kit_unlock(void);

// Reads rules out of a record. Returns null, with the reason for kit_error(),
// when one of them cannot be understood. The caller's to free.
kit_rules *kit_rules_read(const kit_admission *admission);
void kit_rules_free(kit_rules *rules);

// Whether an address of a socket is on a list.
bool kit_nets_have(const kit_nets *nets, const struct sockaddr *address);
bool kit_ids_have(const kit_ids *ids, uint32_t id);

// Puts an address into 16 bytes. False for a family without one.
bool kit_address_bytes(const struct sockaddr *address, uint8_t bytes[16]);

// The node that is reached at a socket's own address, or null. Ports in network
// order, as the kernel tells them. With the lock held.
kit_node *kit_node_at(const struct sockaddr_storage *local);
kit_node *kit_node_of(const kit_service *service);

// In the order of offering, for visits with the lock held.
kit_node *kit_first_node(void);
// The same for visits without it; null: the first one.
const kit_node *kit_node_after(const kit_node *node);

// Notes that the services of a protocol have moved to another port.
void kit_service_moved(uint32_t protocol, int old_port, int new_port);
// Notes that they were stopped or opened; whether one had been stopped before.
bool kit_service_stopped(uint32_t protocol, bool stopped);

// Adds a node. With the lock held.
void kit_node_add(kit_node *node);
// Whether another one is reached where this would be. With the lock held.
bool kit_node_taken(const kit_node *node);

// What a service of a port is reached by.
uint32_t kit_families(const kit_service *service);

// What people call a service: its name, or "protocol N" in buffer.
const char *kit_service_name(const kit_service *service, char *buffer,
                             size_t size);
