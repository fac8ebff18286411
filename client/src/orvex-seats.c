#include "orvex-seats.h"

#include <gio/gio.h>

struct OrvexSeats {
    OrvexCounted counted;
    OrvexLink* home;
    GList* spares; ///< of Spare
};

/// The list has it, and its opening while that is under way.
typedef struct {
    OrvexCounted counted;
    OrvexLink* link;
    GList* boarding; ///< of Boarder: they wait until it is open
} Spare;

typedef struct {
    const OrvexSeatsFunctions* functions;
    gpointer transfer;
} Boarder;

static void spare_free(gpointer data) {
    Spare* spare = data;
    orvex_counted_unref(spare->link);
    g_free(spare);
}

static void seats_free(gpointer data) {
    OrvexSeats* seats = data;
    g_list_free_full(seats->spares, orvex_counted_unref);
    orvex_counted_unref(seats->home);
    g_free(seats);
}

OrvexSeats* orvex_seats_new(OrvexLink* home) {
    OrvexSeats* seats = g_new0(OrvexSeats, 1);
    orvex_counted_init(seats, seats_free);
    seats->home = orvex_counted_ref(home);
    return seats;
}

gboolean orvex_seats_are_connected(OrvexSeats* seats) {
    return orvex_link_is_connected(seats->home);
}

static gboolean home_has_room(OrvexSeats* seats) {
    // A connection that was given cannot be made once more.
    return !orvex_link_is_own(seats->home) || orvex_link_has_room(seats->home);
}

/// The spare link for the next transfer, or NULL.
static Spare* find_spare(OrvexSeats* seats) {
    for (GList* each = seats->spares; each != NULL; each = each->next) {
        Spare* spare = each->data;
        if (orvex_link_has_room(spare->link) &&
            (!orvex_link_is_open(spare->link) || orvex_link_is_connected(spare->link))) {
            return spare;
        }
    }
    return NULL;
}

static void drop_spare(OrvexSeats* seats, Spare* spare) {
    seats->spares = g_list_remove(seats->spares, spare);
    orvex_counted_unref(spare);
}

/// A spare link that nobody uses stays only if the next transfer would take it.
static void drop_idle_spares(OrvexSeats* seats) {
    const Spare* next = home_has_room(seats) ? NULL : find_spare(seats);
    for (GList* each = seats->spares; each != NULL;) {
        Spare* spare = each->data;
        each = each->next;
        if (orvex_link_is_idle(spare->link) && spare != next) {
            drop_spare(seats, spare);
        }
    }
}

typedef struct {
    OrvexSeats* seats;
    Spare* spare;
} Opening;

static void spare_opened(GObject* source, GAsyncResult* result, gpointer data) {
    g_autofree Opening* opening = data;
    OrvexSeats* seats = opening->seats;
    Spare* spare = opening->spare;
    (void)source;
    const gboolean is_open = g_task_propagate_boolean(G_TASK(result), NULL);
    g_autoptr(GList) boarding = g_steal_pointer(&spare->boarding);
    for (GList* each = boarding; each != NULL; each = each->next) {
        g_autofree Boarder* boarder = each->data;
        if (!is_open) { // the bus may allow no further connection; then this one has to do
            boarder->functions->sit(boarder->transfer, seats->home);
        }
        boarder->functions->board(boarder->transfer);
        orvex_counted_unref(boarder->transfer);
    }
    if (!is_open && g_list_find(seats->spares, spare) != NULL) {
        drop_spare(seats, spare);
    }
    orvex_counted_unref(spare);
    orvex_counted_unref(seats);
}

static Spare* add_spare(OrvexSeats* seats) {
    Spare* spare = g_new0(Spare, 1);
    orvex_counted_init(spare, spare_free);
    spare->link = orvex_link_new_beside(seats->home);
    seats->spares = g_list_append(seats->spares, spare);
    Opening* opening = g_new(Opening, 1);
    *opening = (Opening){orvex_counted_ref(seats), orvex_counted_ref(spare)};
    g_autoptr(GTask) task = g_task_new(NULL, NULL, spare_opened, opening);
    orvex_link_open(spare->link, NULL, task);
    return spare;
}

static void board_later(Spare* spare, const OrvexSeatsFunctions* functions, gpointer transfer) {
    Boarder* boarder = g_new(Boarder, 1);
    *boarder = (Boarder){functions, orvex_counted_ref(transfer)};
    spare->boarding = g_list_append(spare->boarding, boarder);
}

void orvex_seats_find(OrvexSeats* seats, const OrvexSeatsFunctions* functions, gpointer transfer) {
    if (home_has_room(seats)) {
        functions->sit(transfer, seats->home);
        functions->board(transfer);
        return;
    }
    Spare* spare = find_spare(seats);
    if (spare == NULL) {
        spare = add_spare(seats);
    }
    functions->sit(transfer, spare->link);
    if (orvex_link_is_open(spare->link)) {
        functions->board(transfer);
    } else {
        board_later(spare, functions, transfer);
    }
}

void orvex_seats_leave(OrvexSeats* seats, OrvexLink* link, guint lost) {
    orvex_link_leave(link, lost);
    drop_idle_spares(seats);
}
