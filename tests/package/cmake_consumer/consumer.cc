// ../consumer.c written with lumregion.hpp.
#include <cstdio>

#include "lumregion.hpp"

int main() {
    try {
        lum::library started(".");
        lum::region scratch = lum::region::create("consumer", lum::region_type::scratch, "");
        lum::segment segment = lum::segment::create(scratch);
        segment.make(std::uint64_t{7});
        segment.drop();
        scratch.drop();
        return 0;
    } catch (const lum::error &failure) {
        std::fprintf(stderr, "consumer: %s\n", failure.what());
        return 1;
    }
}
