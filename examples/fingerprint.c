// Sends a fingerprint and prints the answer: fingerprint FILE
// cc fingerprint.c $(pkg-config --cflags --libs orvexclient-1.0) -o fingerprint
#include <orvexclient.h>
#include <stdio.h>

static GBytes* ask(const char* path, GError** error) {
    g_autoptr(GFile) file = g_file_new_for_path(path);
    g_autoptr(GBytes) question = g_file_load_bytes(file, NULL, NULL, error);
    if (question == NULL) {
        return NULL;
    }
    g_autoptr(OrvexClient) client = orvex_client_new(NULL, error);
    if (client == NULL) {
        return NULL;
    }
    g_autoptr(OrvexRequest) request =
        orvex_request_new("fingerprintRequest", "fingerprint", "1.0", "application/xml");
    return orvex_client_ask(client, request, question, NULL, error);
}

int main(int count, char* words[]) {
    g_autoptr(GError) error = NULL;
    if (count != 2) {
        return 2;
    }
    g_autoptr(GBytes) answer = ask(words[1], &error);
    if (answer == NULL) {
        fprintf(stderr, "fingerprint: %s\n", error->message);
        return 1;
    }
    fwrite(g_bytes_get_data(answer, NULL), 1, g_bytes_get_size(answer), stdout);
    return 0;
}
