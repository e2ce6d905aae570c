// Admission rules: from the text of a record to something that is quick to
// ask.
#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>

#include "kit/error.h"
#include "kit/service.h"
#include "kit/text.h"

constexpr unsigned int ADDRESS_BITS = 128;
constexpr unsigned int MAPPED_BITS = 96;
constexpr long HIGHEST_ID = 999999999;

// IPv4 takes its IPv6-mapped form, so that one comparison serves both.
static void map_ipv4(const void *ipv4, uint8_t address[16])
{
    memset(address, 0, 10);
    memset(address + 10, 0xff, 2);
    memcpy(address + 12, ipv4, 4);
}

bool kit_address_bytes(const struct sockaddr *address, uint8_t bytes[16])
{
    if (address->sa_family == AF_INET) {
        map_ipv4(&reinterpret_cast<const sockaddr_in *>(address)->sin_addr,
                 bytes);
        return true;
    }
    if (address->sa_family == AF_INET6) {
        memcpy(bytes,
               &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr, 16);
        return true;
    }
    return false;
}

static bool covers(const kit_net *net, const uint8_t address[16])
{
    const unsigned int whole = net->bits / 8;
    const unsigned int rest = net->bits % 8;

    if (memcmp(net->address, address, whole) != 0) {
        return false;
    }
    return rest == 0 ||
           (net->address[whole] ^ address[whole]) >> (8 - rest) == 0;
}

bool kit_nets_have(const kit_nets *nets, const struct sockaddr *address)
{
    uint8_t bytes[16];

    if (!nets->present) {
        return true;
    }
    if (!kit_address_bytes(address, bytes)) {
        return false;
    }
    for (size_t i = 0; i < nets->count; i++) {
        if (covers(&nets->nets[i], bytes)) {
            return true;
        }
    }
    return false;
}

bool kit_ids_have(const kit_ids *ids, uint32_t id)
{
    for (size_t i = 0; i < ids->count; i++) {
        if (ids->ids[i] == id) {
            return true;
        }
    }
    return false;
}

static size_t length_of(const char *const *list)
{
    size_t count = 0;

    while (list[count] != nullptr) {
        count++;
    }
    return count;
}

static bool read_net(const char *text, kit_net *net)
{
    char address[INET6_ADDRSTRLEN] = {};
    struct in_addr ipv4;
    unsigned int mapped = 0;
    const size_t length = strcspn(text, "/");

    if (length >= sizeof address) {
        return false;
    }
    memcpy(address, text, length);
    if (inet_pton(AF_INET, address, &ipv4) == 1) {
        map_ipv4(&ipv4, net->address);
        mapped = MAPPED_BITS;
    } else if (inet_pton(AF_INET6, address, net->address) != 1) {
        return false;
    }
    int bits = static_cast<int>(ADDRESS_BITS - mapped);
    if (text[length] == '/' && !kit_number(text + length + 1, 0, bits, &bits)) {
        return false;
    }
    net->bits = mapped + static_cast<unsigned int>(bits);
    return true;
}

static bool read_nets(const char *const *list, kit_nets *nets)
{
    if (list == nullptr) {
        return true;
    }
    const size_t count = length_of(list);
    nets->present = true;
    nets->nets = static_cast<kit_net *>(calloc(count + 1, sizeof *nets->nets));
    if (nets->nets == nullptr) {
        kit_fail("out of memory");
        return false;
    }
    for (; nets->count < count; nets->count++) {
        if (!read_net(list[nets->count], &nets->nets[nets->count])) {
            kit_fail("'%s' is no address or address/bits", list[nets->count]);
            return false;
        }
    }
    return true;
}

static bool user_id(const char *text, uint32_t *id)
{
    int number;

    if (kit_number(text, 0, HIGHEST_ID, &number)) {
        *id = static_cast<uint32_t>(number);
        return true;
    }
    const struct passwd *user = getpwnam(text);
    if (user == nullptr) {
        kit_fail("there is no user '%s'", text);
        return false;
    }
    *id = user->pw_uid;
    return true;
}

static bool group_id(const char *text, uint32_t *id)
{
    int number;

    if (kit_number(text, 0, HIGHEST_ID, &number)) {
        *id = static_cast<uint32_t>(number);
        return true;
    }
    const struct group *group = getgrnam(text);
    if (group == nullptr) {
        kit_fail("there is no group '%s'", text);
        return false;
    }
    *id = group->gr_gid;
    return true;
}

static bool read_ids(const char *const *list,
                     bool (*read_id)(const char *, uint32_t *), kit_ids *ids)
{
    if (list == nullptr) {
        return true;
    }
    const size_t count = length_of(list);
    ids->ids = static_cast<uint32_t *>(calloc(count + 1, sizeof *ids->ids));
    if (ids->ids == nullptr) {
        kit_fail("out of memory");
        return false;
    }
    for (; ids->count < count; ids->count++) {
        if (!read_id(list[ids->count], &ids->ids[ids->count])) {
            return false;
        }
    }
    return true;
}

kit_rules *kit_rules_read(const kit_admission *admission)
{
    if (admission->size != sizeof *admission) {
        kit_fail("an admission record of %zu bytes is of another version",
                 admission->size);
        return nullptr;
    }
    kit_rules *rules = static_cast<kit_rules *>(calloc(1, sizeof *rules));
    if (rules == nullptr) {
        kit_fail("out of memory");
        return nullptr;
    }
    rules->by_identity =
        admission->users != nullptr || admission->groups != nullptr;
    rules->most_sessions = admission->most_sessions;
    rules->most_per_peer = admission->most_per_peer;
    if (!read_nets(admission->peers, &rules->peers) ||
        !read_nets(admission->locals, &rules->locals) ||
        !read_ids(admission->users, user_id, &rules->users) ||
        !read_ids(admission->groups, group_id, &rules->groups)) {
        kit_rules_free(rules);
        return nullptr;
    }
    return rules;
}

void kit_rules_free(kit_rules *rules)
{
    if (rules != nullptr) {
        free(rules->peers.nets);
        free(rules->locals.nets);
        free(rules->users.ids);
        free(rules->groups.ids);
        free(rules);
    }
}
