// The shapes, and the header's templates used from this unit too.
#include "cxx_shapes.h"

#include <stdexcept>

namespace {

class Square : public Shape {
public:
    explicit Square(long side) : side_(side) {}
    long area() const override { return side_ * side_; }
    std::string name() const override { return "square"; }

private:
    long side_;
};

class Rectangle : public Shape {
public:
    Rectangle(long width, long height) : width_(width), height_(height)
    {
        if (width <= 0 || height <= 0)
            throw std::invalid_argument("empty rectangle");
    }
    long area() const override { return width_ * height_; }
    std::string name() const override { return width_ == height_ ? "square rectangle" : "rectangle"; }

private:
    long width_, height_;
};

} // namespace

std::vector<std::unique_ptr<Shape>> make_shapes(int count)
{
    std::vector<std::unique_ptr<Shape>> shapes;
    std::vector<long> sides;
    for (int i = 0; i < count; ++i) {
        try {
            if (i % 3 == 0)
                shapes.push_back(std::make_unique<Square>(i));
            else
                shapes.push_back(std::make_unique<Rectangle>(i % 4, i % 5));
            sides.push_back(i);
        } catch (const std::invalid_argument &) {
            sides.push_back(-1);
        }
    }
    // The same template instances as the other unit.
    if (count_at_least(sides, 0L) > 1000 || checked_sum(sides, 1L << 40, [](long) { return true; }) < 0)
        shapes.clear();
    return shapes;
}

long total_area(const std::vector<std::unique_ptr<Shape>> &shapes) noexcept
{
    long total = 0;
    for (const auto &shape : shapes)
        total += shape->area();
    return total;
}

// Throws across units: the caller in the other unit catches.
long area_of(const std::vector<std::unique_ptr<Shape>> &shapes, size_t index)
{
    if (index >= shapes.size())
        throw std::out_of_range("no shape " + std::to_string(index));
    return shapes[index]->area();
}
