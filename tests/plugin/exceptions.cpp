// Exceptions thrown and caught across functions, through frames with and
// without landing pads, and a destructor on the way.
#include <cstdio>
#include <stdexcept>
#include <string>

struct Noisy {
    int *count;
    ~Noisy() { ++*count; }
};

static int check(int value)
{
    if (value % 5 == 3)
        throw std::runtime_error("three");
    return value * 2;
}

static int through(int value) { return check(value) + 1; } // no landing pad

static int guarded(int value, int *destroyed)
{
    Noisy noisy{destroyed};
    return through(value);
}

int main()
{
    int caught = 0, destroyed = 0, total = 0;
    for (int i = 0; i < 40; ++i) {
        try {
            total += guarded(i, &destroyed);
        } catch (const std::exception &) {
            ++caught;
        }
    }
    std::printf("%d %d %d\n", total, caught, destroyed);
    return 0;
}
