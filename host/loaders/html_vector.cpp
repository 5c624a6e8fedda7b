#include "html_vector.h"

#include "sanitized.h"

#include <fcntl.h>
#include <librsvg/rsvg.h>
#include <pango/pangocairo.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ternview {
namespace {

using namespace std::chrono_literals;

constexpr double kFinest = 2;         // pixels per CSS pixel: finer than the screen, for printing
constexpr double kDrawnPixels = 4e6;  // of one picture; a larger one is drawn coarser
constexpr std::chrono::milliseconds kOnePicture = 2s;
[[maybe_unused]] constexpr rlim_t kDrawingBytes = rlim_t{256} << 20;

/// What the drawing process leaves in the memory that it shares with us; the pixels follow.
struct Drawing {
    double width;  // in CSS pixels
    double height;
    int columns;
    int rows;
};
constexpr std::size_t kPixelsOffset = 64;
static_assert(sizeof(Drawing) <= kPixelsOffset);

class SharedMemory {
public:
    explicit SharedMemory(std::size_t size)
        : m_size(size), m_start(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
    ~SharedMemory() {
        if (good()) {
            munmap(m_start, m_size);
        }
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    bool good() const { return m_start != MAP_FAILED; }
    Drawing* drawing() const { return static_cast<Drawing*>(m_start); }
    unsigned char* pixels() const { return static_cast<unsigned char*>(m_start) + kPixelsOffset; }

private:
    std::size_t m_size;
    void* m_start;
};

bool measure(RsvgHandle* handle, double maxPixels, Drawing& drawing) {
    if (rsvg_handle_get_intrinsic_size_in_pixels(handle, &drawing.width, &drawing.height) == FALSE) {
        gboolean hasBox = FALSE;
        RsvgRectangle box{};
        rsvg_handle_get_intrinsic_dimensions(handle, nullptr, nullptr, nullptr, nullptr, &hasBox, &box);
        drawing.width = hasBox != FALSE ? box.width : 300;
        drawing.height = hasBox != FALSE ? box.height : 150;
    }
    const double area = drawing.width * drawing.height;
    if (!(drawing.width >= 1) || !(drawing.height >= 1) || !(area <= maxPixels)) {
        return false;
    }
    const double scale = std::min(kFinest, std::sqrt(std::min(kDrawnPixels, maxPixels) / area));
    drawing.columns = std::max(1, static_cast<int>(drawing.width * scale));
    drawing.rows = std::max(1, static_cast<int>(drawing.height * scale));
    return true;
}

bool draw(std::string_view data, double maxPixels, const SharedMemory& memory) {
    // The font map of before the fork waits for a thread that is not in this process.
    pango_cairo_font_map_set_default(PANGO_CAIRO_FONT_MAP(pango_cairo_font_map_new()));
    // Data without a base address: references to anything outside cannot be resolved.
    RsvgHandle* handle = rsvg_handle_new_from_data(reinterpret_cast<const guint8*>(data.data()), data.size(), nullptr);
    Drawing& drawing = *memory.drawing();
    if (handle == nullptr || !measure(handle, maxPixels, drawing)) {
        return false;
    }
    const CairoSurface surface(cairo_image_surface_create_for_data(memory.pixels(), CAIRO_FORMAT_ARGB32, drawing.columns,
                                                                   drawing.rows, drawing.columns * 4),
                               &cairo_surface_destroy);
    const std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context(cairo_create(surface.get()), &cairo_destroy);
    const RsvgRectangle viewport{0, 0, static_cast<double>(drawing.columns), static_cast<double>(drawing.rows)};
    const bool drawn = rsvg_handle_render_document(handle, context.get(), &viewport, nullptr) != FALSE;
    cairo_surface_flush(surface.get());
    return drawn && cairo_status(context.get()) == CAIRO_STATUS_SUCCESS;
}

/// The bytes of data that this process has now, to which the drawing's own are added.
[[maybe_unused]] rlim_t dataBytes() {
    unsigned long pages = 0;
    if (FILE* file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*u %*u %*u %*u %*u %lu", &pages) != 1) {
            pages = 0;
        }
        std::fclose(file);
    }
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

void lower(__rlimit_resource resource, rlim_t wanted) {
    struct rlimit limit {};
    getrlimit(resource, &limit);
    limit.rlim_cur = limit.rlim_max = std::min(wanted, limit.rlim_cur);
    setrlimit(resource, &limit);
}

/// Of the drawing process, before it reads anything. It has its clock with it, as nobody here may send signals to others.
void setLimits(std::chrono::milliseconds time) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGALRM, SIG_DFL);
    sigset_t unblocked;
    sigemptyset(&unblocked);
    sigaddset(&unblocked, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &unblocked, nullptr);
    const auto microseconds = std::max<std::int64_t>(1, std::chrono::microseconds(time).count());
    const itimerval clock{{}, {microseconds / 1'000'000, microseconds % 1'000'000}};
    setitimer(ITIMER_REAL, &clock, nullptr);
    lower(RLIMIT_CORE, 0);
    const int silence = open("/dev/null", O_WRONLY | O_CLOEXEC);  // running out of memory is expected here, and no news
    if (silence >= 0) {
        dup2(silence, STDERR_FILENO);
    }
#ifndef TERNVIEW_SANITIZED
    if (const rlim_t now = dataBytes(); now > 0) {
        lower(RLIMIT_DATA, now + kDrawingBytes);
    }
#endif
}

bool drawInOwnProcess(std::string_view data, double maxPixels, const SharedMemory& memory, std::chrono::milliseconds time) {
    const pid_t process = fork();
    if (process == 0) {
        setLimits(time);
        _exit(draw(data, maxPixels, memory) ? 0 : 1);
    }
    int status = -1;
    while (process > 0 && waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return process > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::optional<Picture> vectorPicture(std::string_view data, double maxPixels, std::chrono::milliseconds& budget) {
    const SharedMemory memory(kPixelsOffset + static_cast<std::size_t>(kDrawnPixels) * 4);
    if (budget <= 0ms || !memory.good()) {
        return std::nullopt;
    }
    const auto start = std::chrono::steady_clock::now();
    const bool drawn = drawInOwnProcess(data, maxPixels, memory, std::min(budget, kOnePicture));
    budget -= std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    const Drawing drawing = *memory.drawing();
    if (!drawn || drawing.columns < 1 || drawing.rows < 1 ||
        static_cast<double>(drawing.columns) * drawing.rows > std::min(kDrawnPixels, maxPixels)) {
        return std::nullopt;
    }
    Picture picture{
        CairoSurface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, drawing.columns, drawing.rows), &cairo_surface_destroy),
        drawing.width, drawing.height};
    if (cairo_surface_status(picture.surface.get()) != CAIRO_STATUS_SUCCESS) {
        return std::nullopt;
    }
    const auto bytes = static_cast<std::size_t>(drawing.columns) * 4;
    const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(picture.surface.get()));
    unsigned char* target = cairo_image_surface_get_data(picture.surface.get());
    for (std::size_t row = 0; row < static_cast<std::size_t>(drawing.rows); ++row) {
        std::memcpy(target + row * stride, memory.pixels() + row * bytes, bytes);
    }
    cairo_surface_mark_dirty(picture.surface.get());
    return picture;
}

}  // namespace ternview
