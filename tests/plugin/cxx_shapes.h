// Shared by the two translation units of the C++ test: a class hierarchy
// called through virtual functions, and templates defined in the header,
// so that both units emit their own copy (linkonce_odr) of each.
#pragma once

#include <memory>
#include <string>
#include <vector>

class Shape {
public:
    virtual ~Shape() = default;
    virtual long area() const = 0;
    virtual std::string name() const = 0;
};

std::vector<std::unique_ptr<Shape>> make_shapes(int count);
long total_area(const std::vector<std::unique_ptr<Shape>> &shapes) noexcept;
long area_of(const std::vector<std::unique_ptr<Shape>> &shapes, size_t index);

// Sums the values that pass Keep, and throws when the sum passes limit.
template <typename T, typename Keep>
T checked_sum(const std::vector<T> &values, T limit, Keep keep)
{
    T sum{};
    for (const T &value : values) {
        if (!keep(value))
            continue;
        sum += value;
        if (sum > limit)
            throw std::string("over the limit");
    }
    return sum;
}

// The number of elements at or above threshold.
template <typename Container>
int count_at_least(const Container &container, typename Container::value_type threshold)
{
    int count = 0;
    for (const auto &element : container)
        if (element >= threshold)
            ++count;
    return count;
}
