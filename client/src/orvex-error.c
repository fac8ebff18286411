#include "orvex-error.h"

#include "orvex-error-private.h"

typedef struct {
    guint code;
    char* detail;
} OrvexErrorPrivate;

static void orvex_error_private_init(OrvexErrorPrivate* priv) {
    priv->code = 0;
    priv->detail = NULL;
}

static void orvex_error_private_copy(const OrvexErrorPrivate* from, OrvexErrorPrivate* to) {
    to->code = from->code;
    to->detail = g_strdup(from->detail);
}

static void orvex_error_private_clear(OrvexErrorPrivate* priv) {
    g_free(priv->detail);
}

/**
 * orvex_error_quark:
 *
 * The domain of the errors of this library.
 *
 * Returns: the domain
 */
// No comma behind it: the macro defines functions.
G_DEFINE_EXTENDED_ERROR(OrvexError, orvex_error)

/**
 * orvex_error_get_code:
 * @error: an error
 *
 * Gets the number that the daemon gave for the failure. Programs decide by the value of the error;
 * the number is for those who look for the reason.
 *
 * Bindings whose exceptions keep only domain, value and message of an error lose the number: ask
 * [method@Request.get_error_code] there.
 *
 * Any thread may call it.
 *
 * Returns: the number, or 0 if the failure is none of the daemon's
 */
guint orvex_error_get_code(const GError* error) {
    g_return_val_if_fail(error != NULL, 0);
    return error->domain == ORVEX_ERROR ? orvex_error_get_private(error)->code : 0;
}

/**
 * orvex_error_get_detail:
 * @error: an error
 *
 * Gets the words that came with the failure from the daemon, from the server behind it or from the
 * bus. They are for people, in English, and may hold anything: a terminal should not see them
 * unchecked.
 *
 * Bindings whose exceptions keep only domain, value and message of an error lose the words: ask
 * [method@Request.dup_error_detail] there.
 *
 * Any thread may call it.
 *
 * Returns: (nullable) (transfer none): the words, which live as long as @error
 */
const char* orvex_error_get_detail(const GError* error) {
    g_return_val_if_fail(error != NULL, NULL);
    return error->domain == ORVEX_ERROR ? orvex_error_get_private(error)->detail : NULL;
}

void orvex_error_set_cause(GError* error, guint code, const char* detail) {
    OrvexErrorPrivate* priv = orvex_error_get_private(error);
    priv->code = code;
    priv->detail = detail != NULL && *detail != '\0' ? g_strdup(detail) : NULL;
}
