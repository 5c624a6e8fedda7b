// The page of an export in a real browser: it must look like something, and its pictures must be there.

#include <cairo.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "mime_builder.h"
#include "ternview_program.h"

namespace {

namespace fs = std::filesystem;

std::string browser() {
    const char* path = std::getenv("PATH");
    for (std::string rest = path == nullptr ? "" : path; !rest.empty();) {
        const std::size_t colon = rest.find(':');
        for (const char* name : {"chromium-headless-shell", "chromium"}) {
            const fs::path program = fs::path(rest.substr(0, colon)) / name;
            if (::access(program.c_str(), X_OK) == 0) {
                return program.string();
            }
        }
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return "";
}

struct Picture {
    explicit Picture(const fs::path& path) : surface(cairo_image_surface_create_from_png(path.c_str()), cairo_surface_destroy) {}

    bool isRead() const { return cairo_surface_status(surface.get()) == CAIRO_STATUS_SUCCESS; }
    int width() const { return cairo_image_surface_get_width(surface.get()); }
    int height() const { return cairo_image_surface_get_height(surface.get()); }
    /// 0xRRGGBB
    std::uint32_t pixel(int x, int y) const {
        const unsigned char* row =
            cairo_image_surface_get_data(surface.get()) + y * cairo_image_surface_get_stride(surface.get());
        return reinterpret_cast<const std::uint32_t*>(row)[x] & 0xFFFFFF;
    }

    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface;
};

/// How wide and high the area is that a colour fills; a few levels off are the same colour.
std::array<int, 2> extentOf(const Picture& picture, std::uint32_t colour) {
    std::array<int, 4> box{picture.width(), picture.height(), -1, -1};
    const auto isNear = [colour](std::uint32_t other) {
        for (int shift = 0; shift < 24; shift += 8) {
            const int difference = static_cast<int>(colour >> shift & 0xFF) - static_cast<int>(other >> shift & 0xFF);
            if (std::abs(difference) > 8) {
                return false;
            }
        }
        return true;
    };
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            if (isNear(picture.pixel(x, y))) {
                box = {std::min(box[0], x), std::min(box[1], y), std::max(box[2], x), std::max(box[3], y)};
            }
        }
    }
    return {box[2] - box[0] + 1, box[3] - box[1] + 1};
}

using ExportPage = TernviewProgram;

TEST_F(ExportPage, ShowsItsPicturesInABrowser) {
    const std::string program = browser();
    if (program.empty()) {
        GTEST_SKIP() << "neither chromium-headless-shell nor chromium is installed";
    }
    constexpr std::array<std::uint32_t, 3> colours{0xC02040, 0x20A040, 0x2040C0};
    for (const std::uint32_t colour : colours) {
        std::array<char, 8> name;
        std::snprintf(name.data(), name.size(), "%06x", colour);
        const std::string html =
            "<html><body bgcolor=\"#" + std::string(name.data()) + "\"><p>a page in one colour</p></body></html>";
        write("in/" + std::string(name.data()) + ".eml", mime::Html(html + "\r\n").addressed().bytes());
    }
    ASSERT_EQ(run("export in -o out").exitCode, 0);
    // As root the browser has no sandbox; the page is our own.
    const Outcome outcome = runCommand("timeout -k 5 120 '" + program + "' " + (geteuid() == 0 ? "--no-sandbox " : "") +
                                       "--headless --disable-gpu --hide-scrollbars --host-resolver-rules='MAP * ~NOTFOUND' "
                                       "--user-data-dir=../profile --window-size=1000,900 --screenshot=../page.png 'file://" +
                                       work("out/index.html").string() + "' > ../out 2> ../err");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    const Picture page(work("../page.png"));
    ASSERT_TRUE(page.isRead());
    for (const std::uint32_t colour : colours) {
        const auto [width, height] = extentOf(page, colour);
        EXPECT_GT(width, 40) << "the picture is shown";
        EXPECT_LT(width, 110) << "in the size that the page's style gives it";
        EXPECT_GT(height, 50);
    }
    fs::remove_all(work("../profile"));
}

}  // namespace
