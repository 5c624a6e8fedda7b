#include "html_vector.h"

#include "descriptor.h"
#include "sanitized.h"

#include <fcntl.h>
#include <librsvg/rsvg.h>
#include <pango/pangocairo.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

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

constexpr std::size_t kSharedBytes = kPixelsOffset + static_cast<std::size_t>(kDrawnPixels) * 4;

class SharedMemory {
public:
    SharedMemory()
        : m_start(mmap(nullptr, kSharedBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
    ~SharedMemory() {
        if (good()) {
            munmap(m_start, kSharedBytes);
        }
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    bool good() const { return m_start != MAP_FAILED; }
    Drawing* drawing() const { return static_cast<Drawing*>(m_start); }
    unsigned char* pixels() const { return static_cast<unsigned char*>(m_start) + kPixelsOffset; }
    /// Gives the memory back; all of it reads as zero from then on.
    void clear() const { madvise(m_start, kSharedBytes, MADV_REMOVE); }

private:
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
    // A font map of before the forks, if there was one after all, waits for a thread that is not in this process.
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
rlim_t dataBytes() {
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
/// @param data bytes of data that it has already; 0 when nobody knows
void setLimits(std::chrono::microseconds time, [[maybe_unused]] rlim_t data) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGALRM, SIG_DFL);
    sigset_t unblocked;
    sigemptyset(&unblocked);
    sigaddset(&unblocked, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &unblocked, nullptr);
    const auto microseconds = std::max<std::int64_t>(1, time.count());
    const itimerval clock{{}, {microseconds / 1'000'000, microseconds % 1'000'000}};
    setitimer(ITIMER_REAL, &clock, nullptr);
    lower(RLIMIT_CORE, 0);
    const int silence = open("/dev/null", O_WRONLY | O_CLOEXEC);  // running out of memory is expected here, and no news
    if (silence >= 0) {
        dup2(silence, STDERR_FILENO);
    }
#ifndef TERNVIEW_SANITIZED
    if (data > 0) {
        lower(RLIMIT_DATA, data + kDrawingBytes);
    }
#endif
}

/// Whoever has taken the drawing process over may have written anything.
std::optional<Picture> takeDrawing(const SharedMemory& memory, double maxPixels) {
    const Drawing drawing = *memory.drawing();
    const bool isSized = drawing.width >= 1 && drawing.height >= 1 && drawing.width * drawing.height <= maxPixels;
    if (!isSized || drawing.columns < 1 || drawing.rows < 1 ||
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

struct Request {
    std::size_t bytes;  // of the picture, which follows
    double maxPixels;
    std::chrono::microseconds time;
};

/// @param size in bytes
bool readAll(int from, void* target, std::size_t size) {
    auto* to = static_cast<char*>(target);
    while (size > 0) {
        const ssize_t got = read(from, to, size);
        if (got <= 0 && (got == 0 || errno != EINTR)) {
            return false;
        }
        const auto count = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        to += count;
        size -= count;
    }
    return true;
}

bool sendAll(int to, const void* source, std::size_t size) {
    const auto* from = static_cast<const char*>(source);
    while (size > 0) {
        const ssize_t sent = send(to, from, size, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR) {
            return false;
        }
        const auto count = static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
        from += count;
        size -= count;
    }
    return true;
}

/// The process that has no threads, and what it is told through: for each request one byte comes back, whether it was drawn.
class Drawer {
public:
    Drawer() : m_owner(getpid()) {
        std::array<int, 2> ends{};
        if (!m_memory.good() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return;
        }
        m_socket = Descriptor(ends[0]);
        const Descriptor theirs(ends[1]);
        const rlim_t data = dataBytes();
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            closeAllBut({theirs.get()});
            serve(theirs.get(), data);
        }
    }
    ~Drawer() {
        if (isOurs()) {
            m_socket.close();
            waitFor(m_process);
        }
    }
    Drawer(const Drawer&) = delete;
    Drawer& operator=(const Drawer&) = delete;

    /// Whether this process began it, and not one of which this is a copy.
    bool isOurs() const { return m_owner == getpid(); }

    bool draw(std::string_view data, double maxPixels, std::chrono::milliseconds time) {
        const Request request{data.size(), maxPixels, time};
        char drawn = 0;
        return m_process > 0 && sendAll(m_socket.get(), &request, sizeof(request)) &&
               sendAll(m_socket.get(), data.data(), data.size()) && readAll(m_socket.get(), &drawn, 1) && drawn != 0;
    }

    const SharedMemory& memory() const { return m_memory; }

private:
    static int waitFor(pid_t process) {
        int status = -1;
        while (process > 0 && waitpid(process, &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }

    [[noreturn]] void serve(int socket, rlim_t data) const {
        Request request{};
        while (readAll(socket, &request, sizeof(request))) {
            std::string picture(request.bytes, '\0');
            if (!readAll(socket, picture.data(), picture.size())) {
                break;
            }
            const char drawn = drawInOwnProcess(picture, request, data) ? 1 : 0;
            sendAll(socket, &drawn, 1);
        }
        _exit(0);
    }

    bool drawInOwnProcess(const std::string& picture, const Request& request, rlim_t data) const {
        const pid_t process = fork();
        if (process == 0) {
            closeAllBut({});
            setLimits(request.time, data == 0 ? 0 : data + picture.size());
            _exit(ternview::draw(picture, request.maxPixels, m_memory) ? 0 : 1);
        }
        const int status = waitFor(process);
        return process > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    SharedMemory m_memory;
    pid_t m_owner;
    pid_t m_process = -1;
    Descriptor m_socket;
};

std::optional<Drawer>& currentDrawer() {
    static std::optional<Drawer> current;
    return current;
}

Drawer& drawer() {
    std::optional<Drawer>& current = currentDrawer();
    if (!current || !current->isOurs()) {
        current.emplace();
    }
    return *current;
}

}  // namespace

void prepareVectorPictures() {
    drawer();
}

void endVectorPictures() {
    currentDrawer().reset();
}

std::optional<Picture> vectorPicture(std::string_view data, double maxPixels, std::chrono::milliseconds& budget) {
    if (budget <= 0ms || !drawer().memory().good()) {
        return std::nullopt;
    }
    const SharedMemory& memory = drawer().memory();
    const auto start = std::chrono::steady_clock::now();
    const bool isDrawn = drawer().draw(data, maxPixels, std::min(budget, kOnePicture));
    budget -= std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::optional<Picture> picture = isDrawn ? takeDrawing(memory, maxPixels) : std::nullopt;
    memory.clear();
    return picture;
}

}  // namespace ternview
