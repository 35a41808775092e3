#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "PageAllocator.h"

namespace kel {

/// Formatted lines that travel together, shared by the file and the console.
struct LineBlock {
    struct Line {
        std::size_t end;  // in text, behind the line's end
        int priority;     // as POCO numbers them
    };

    std::string_view line(std::size_t index) const {
        const std::size_t begin = index == 0 ? 0 : lines[index - 1].end;
        return std::string_view(text).substr(begin, lines[index].end - begin);
    }

    PagedText text;
    PagedVector<Line> lines;
};

using LineBlockPtr = std::shared_ptr<const LineBlock>;

}  // namespace kel
