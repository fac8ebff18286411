// Sends a fingerprint and prints the answer as it comes: fingerprint FILE
// c++ -std=c++20 fingerprint.cpp $(pkg-config --cflags --libs orvexclient-1.0) -o fingerprint
#include <array>
#include <iostream>
#include <memory>
#include <orvexclient.h>

template <typename T>
using Ref = std::unique_ptr<T, decltype([](T* each) { g_object_unref(each); })>;

int main(int count, char* words[]) {
    g_autoptr(GError) error = nullptr;
    if (count != 2) {
        return 2;
    }
    const Ref<GFile> file{g_file_new_for_path(words[1])};
    const Ref<GFileInputStream> question{g_file_read(file.get(), nullptr, &error)};
    const Ref<OrvexClient> client{error == nullptr ? orvex_client_new(nullptr, &error) : nullptr};
    const Ref<OrvexRequest> request{
        orvex_request_new("fingerprintRequest", "fingerprint", "1.0", "application/xml")};
    Ref<GInputStream> answer{error == nullptr ? orvex_client_send(client.get(), request.get(),
                                                                  G_INPUT_STREAM(question.get()),
                                                                  nullptr, &error)
                                              : nullptr};
    std::array<char, 4096> room{};
    for (gssize size = 1; error == nullptr && size > 0;) {
        size = g_input_stream_read(answer.get(), room.data(), room.size(), nullptr, &error);
        std::cout.write(room.data(), std::max<gssize>(size, 0));
    }
    if (error != nullptr) {
        std::cerr << "fingerprint: " << error->message << '\n';
        return 1;
    }
    return 0;
}
