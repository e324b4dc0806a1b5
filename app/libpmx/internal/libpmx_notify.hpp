// The ready word, the hook registry and the event delivery as the change callbacks and start-up
// use them (internal).
#ifndef LIBPMX_NOTIFY_HPP
#define LIBPMX_NOTIFY_HPP

#include <cstdint>

#include <protobuf-c/protobuf-c.h>

namespace pmx
{

// Sets the ready bit of a notify type (never cleared), and tells whether it is set.
void notify_set_ready(int type);
bool notify_is_ready(int type);
// The all-data-sources path: calls the first type-1 hook only and drops the entry with its
// further registrations; 0, -7 when none is registered, -11 for a null hook.
int notify_ds_all_first_hook(void *context);
// Registers the debug commands of database access, of the notify hooks and of the event
// delivery.
void mom_add_cmds();
void notify_add_cmds();
void event_add_cmds();
// True when some registration of the timed delivery wants events of these kinds: the callbacks
// build an event only then.
bool event_wanted(uint32_t kinds);
// Queues a record event: the record's name, its key and the record in compact form.
void event_post_record(void *context, int op, const ProtobufCMessage *key, const ProtobufCMessage *record);

} // namespace pmx

#endif // LIBPMX_NOTIFY_HPP
