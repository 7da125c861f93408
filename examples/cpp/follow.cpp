// Follows the items: a line whenever their number changes, until there are as many as wanted.
#include <cstdlib>
#include <iostream>
#include <talvorn/talvorn.hpp>

int main(int argc, char** argv) {
  const std::size_t wanted = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : SIZE_MAX;
  const talvorn::Presence presence;  // a locator started with /dynamic stays
  talvorn::Watch watch;              // before the first look, so that nothing is missed
  talvorn::Client client;
  for (std::size_t before = SIZE_MAX;;) {
    if (const auto items = client.items()) {
      if (items->size() != before) std::cout << items->size() << " items" << std::endl;
      before = items->size();
      if (before >= wanted) return 0;
    } else {
      std::cerr << "follow: " << items.status().text() << std::endl;
    }
    while (watch.wait(std::chrono::hours(1)) == TALVORN_TIMEOUT) continue;
  }
}
