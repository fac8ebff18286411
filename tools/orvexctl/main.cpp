#include "Application.h"

#include <clocale>

int main(int argc, char* argv[]) {
    std::setlocale(LC_ALL, "");
    const std::vector<std::string> words{argv + (argc > 0 ? 1 : 0), argv + argc};
    return static_cast<int>(orvexd::ctl::Application{}.run(words));
}
