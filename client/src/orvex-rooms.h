#pragma once

#include <gio/gio.h>

// Memory for the pieces of a question: one is sent while the next one is read. From the heap, each
// piece would leave holes in which the next one does not fit. Rooms are taken on one thread and
// come back on any; there is no lock.

/// An OrvexCounted: its owner has it, and each room in use.
typedef struct OrvexRooms OrvexRooms;

typedef struct {
    OrvexRooms* owner;
    guint8 bytes[];
} OrvexRoom;

/// @param size of each room
OrvexRooms* orvex_rooms_new(gsize size);
OrvexRoom* orvex_rooms_take(OrvexRooms* rooms);

void orvex_room_release(gpointer room);
/// Takes the room, whose first bytes these are.
GBytes* orvex_room_to_bytes(OrvexRoom* room, gsize size);
