// The change history (internal): the last changes the library applied from the database, for
// the question "why did this port change?".
//
// A bounded ring, filled on the database event thread and read by the "history" debug command;
// the query path never touches it. Each entry keeps the time, the record kind, the key, the
// operation (add, change, delete) and the old and new values, packed as the database gave them
// and formatted only when printed. Bounds: PMX_HISTORY_SIZE entries (4096 when unset, 0 turns
// the history off) and 4 MiB of values; the oldest go first. To tell a change from an add and
// to find the old value, an index keeps, for every key the library follows, the entry of its last
// change: 16 bytes a key. A change whose last entry has left the ring shows its old value as not
// kept.
#ifndef LIBPMX_HISTORY_HPP
#define LIBPMX_HISTORY_HPP

#include <protobuf-c/protobuf-c.h>

namespace pmx::history
{

// One change applied from the database (event: the database client's add or delete).
void note(int event, const ProtobufCMessage *key, const ProtobufCMessage *record);

void add_cmds();

} // namespace pmx::history

#endif // LIBPMX_HISTORY_HPP
