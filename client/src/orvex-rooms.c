#include "orvex-rooms.h"

#include "orvex-counted.h"

#include <stdint.h>

struct OrvexRooms {
    OrvexCounted counted;
    atomic_uintptr_t spare[2];
    gsize size;
};

static void rooms_free(gpointer data) {
    OrvexRooms* rooms = data;
    for (guint index = 0; index < G_N_ELEMENTS(rooms->spare); ++index) {
        g_free((gpointer)atomic_load(&rooms->spare[index]));
    }
    g_free(rooms);
}

OrvexRooms* orvex_rooms_new(gsize size) {
    OrvexRooms* rooms = g_new0(OrvexRooms, 1);
    orvex_counted_init(rooms, rooms_free);
    rooms->size = size;
    return rooms;
}

OrvexRoom* orvex_rooms_take(OrvexRooms* rooms) {
    uintptr_t room = 0;
    for (guint index = 0; index < G_N_ELEMENTS(rooms->spare) && room == 0; ++index) {
        room = atomic_exchange(&rooms->spare[index], 0);
    }
    OrvexRoom* taken = room != 0 ? (OrvexRoom*)room : g_malloc(sizeof(OrvexRoom) + rooms->size);
    taken->owner = orvex_counted_ref(rooms);
    return taken;
}

void orvex_room_release(gpointer data) {
    OrvexRoom* room = data;
    OrvexRooms* rooms = room->owner;
    for (guint index = 0; index < G_N_ELEMENTS(rooms->spare) && room != NULL; ++index) {
        uintptr_t none = 0;
        if (atomic_compare_exchange_strong(&rooms->spare[index], &none, (uintptr_t)room)) {
            room = NULL;
        }
    }
    g_free(room);
    orvex_counted_unref(rooms);
}

GBytes* orvex_room_to_bytes(OrvexRoom* room, gsize size) {
    // A source that gives little at once does not hold much memory for it.
    if (size >= room->owner->size / 2) {
        return g_bytes_new_with_free_func(room->bytes, size, orvex_room_release, room);
    }
    GBytes* bytes = g_bytes_new(room->bytes, size);
    orvex_room_release(room);
    return bytes;
}
