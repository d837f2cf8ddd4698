#include "kv_vboard_registry.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kv_vboard.h"
#include "kv_vboard_board.h"

namespace kvvb {

namespace {

struct mapping {
    void* addr;
    std::weak_ptr<board> owner;
    uint64_t generation;
    int index;
};

std::string with_index(const std::string& pattern, size_t index) {
    std::string out;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] == 'i') {
            out += std::to_string(index);
            ++i;
        } else {
            out += pattern[i];
        }
    }
    return out;
}

const char* env(const char* name) {
    const char* v = getenv(name);
    return v && *v ? v : nullptr;
}

bool env_flag(const char* name) {
    const char* v = env(name);
    if (!v) {
        return false;
    }
    const std::string s(v);
    return s == "1" || s == "yes" || s == "true" || s == "on";
}

void env_u32(const char* name, uint32_t& out) {
    const char* v = env(name);
    if (!v) {
        return;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long n = strtoull(v, &end, 0);
    if (errno != 0 || *end != '\0' || n > 0xffffffffull || *v == '-') {
        fprintf(stderr, "kv_vboard: ignoring %s=%s\n", name, v);
        return;
    }
    out = uint32_t(n);
}

void env_double(const char* name, double& out) {
    const char* v = env(name);
    if (!v) {
        return;
    }
    char* end = nullptr;
    const double d = strtod(v, &end);
    if (*end != '\0') {
        fprintf(stderr, "kv_vboard: ignoring %s=%s\n", name, v);
        return;
    }
    out = d;
}

bool valid(const board_config& c) {
    return !c.node.empty() && c.sizeimage > 0 && c.buffers >= 1 && c.buffers <= 32;
}

class registry {
public:
    registry() {
        load_environment();
        atexit([] { instance().flush_all(); });
    }

    static registry& instance() {
        // Never destroyed: descriptors may still be closed by other exit handlers.
        static registry* r = new registry();
        return *r;
    }

    std::mutex m_cs;
    std::vector<std::pair<std::string, std::shared_ptr<board>>> m_nodes;  // by node index
    std::unordered_map<int, std::shared_ptr<board>> m_fds;
    std::vector<mapping> m_maps;
    std::atomic<int> m_nFds{0};
    std::atomic<int> m_nMaps{0};
    std::string m_statsPattern;

    std::shared_ptr<board> find_node(const char* path) {
        std::lock_guard<std::mutex> lk(m_cs);
        for (auto& n : m_nodes) {
            if (n.first == path) {
                return n.second;
            }
        }
        return nullptr;
    }

    std::shared_ptr<board> find_fd(int fd) {
        std::lock_guard<std::mutex> lk(m_cs);
        const auto it = m_fds.find(fd);
        return it == m_fds.end() ? nullptr : it->second;
    }

    // Adds or replaces the node; the capture and stats patterns get the node index.
    std::shared_ptr<board> add(board_config cfg, const std::string& capturePattern) {
        std::lock_guard<std::mutex> lk(m_cs);
        size_t index = m_nodes.size();
        for (size_t i = 0; i < m_nodes.size(); ++i) {
            if (m_nodes[i].first == cfg.node) {
                index = i;
            }
        }
        cfg.capture = with_index(capturePattern, index);
        cfg.stats = with_index(m_statsPattern, index);
        auto b = std::make_shared<board>(cfg);
        if (index == m_nodes.size()) {
            m_nodes.emplace_back(cfg.node, b);
        } else {
            m_nodes[index].second = b;
        }
        return b;
    }

    void flush_all() {
        std::vector<std::shared_ptr<board>> boards;
        {
            std::lock_guard<std::mutex> lk(m_cs);
            for (auto& n : m_nodes) {
                boards.push_back(n.second);
            }
            for (auto& f : m_fds) {
                boards.push_back(f.second);
            }
        }
        for (auto& b : boards) {
            b->flush();
        }
    }

private:
    void load_environment() {
        if (const char* s = env("KV_VBOARD_STATS")) {
            m_statsPattern = s;
        }
        board_config base;
        base.mplane = env_flag("KV_VBOARD_MPLANE");
        base.freerun = env_flag("KV_VBOARD_FREERUN");
        env_u32("KV_VBOARD_SIZEIMAGE", base.sizeimage);
        env_u32("KV_VBOARD_BUFFERS", base.buffers);
        env_u32("KV_VBOARD_FIRST_SEQUENCE", base.first_sequence);
        env_u32("KV_VBOARD_COUNTER_START", base.counter_start);
        env_u32("KV_VBOARD_SEQUENCE_RESTART", base.sequence_restart);
        env_double("KV_VBOARD_PPM", base.ppm);
        const char* capture = env("KV_VBOARD_CAPTURE");
        fault_set faults;
        if (const char* f = env("KV_VBOARD_FAULTS")) {
            std::string error;
            if (!parse_faults(f, faults, error)) {
                fprintf(stderr, "kv_vboard: KV_VBOARD_FAULTS: %s\n", error.c_str());
            }
        }
        std::string nodes = "/dev/kvasi0";
        if (const char* n = env("KV_VBOARD_NODES")) {
            nodes = n;
        }
        size_t begin = 0;
        while (begin <= nodes.size()) {
            size_t end = nodes.find(',', begin);
            if (end == std::string::npos) {
                end = nodes.size();
            }
            board_config cfg = base;
            cfg.node = nodes.substr(begin, end - begin);
            begin = end + 1;
            if (cfg.node.empty()) {
                continue;
            }
            if (!valid(cfg)) {
                fprintf(stderr, "kv_vboard: invalid configuration for %s\n", cfg.node.c_str());
                continue;
            }
            add(cfg, capture ? capture : "")->set_faults(faults);
        }
    }
};

registry& reg() {
    return registry::instance();
}

}  // namespace

bool hook_open(const char* path, int flags, int* pResult) {
    if (!path) {
        return false;
    }
    registry& r = reg();
    std::shared_ptr<board> b = r.find_node(path);
    if (!b) {
        return false;
    }
    *pResult = -1;
    const int err = b->open_check();
    if (err != 0) {
        errno = err;
        return true;
    }
    // A real descriptor keeps the number from being handed out to anything else.
    const int fd = memfd_create("kv_vboard", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0) {
        return true;
    }
    b->opened(fd, (flags & O_NONBLOCK) != 0);
    {
        std::lock_guard<std::mutex> lk(r.m_cs);
        r.m_fds[fd] = b;
        ++r.m_nFds;
    }
    *pResult = fd;
    return true;
}

bool hook_close(int fd, int* pResult) {
    registry& r = reg();
    if (r.m_nFds.load() == 0) {
        return false;
    }
    std::shared_ptr<board> b;
    {
        std::lock_guard<std::mutex> lk(r.m_cs);
        const auto it = r.m_fds.find(fd);
        if (it == r.m_fds.end()) {
            return false;
        }
        b = std::move(it->second);
        r.m_fds.erase(it);
        --r.m_nFds;
    }
    b->closed(fd);
    *pResult = 0;
    return true;  // the caller closes the descriptor itself
}

// The board behind a descriptor, if it is one of the board's; cheap when none is open.
static std::shared_ptr<board> board_of_fd(int fd) {
    registry& r = reg();
    return fd < 0 || r.m_nFds.load() == 0 ? nullptr : r.find_fd(fd);
}

bool hook_ioctl(int fd, unsigned long request, void* arg, int* pResult) {
    std::shared_ptr<board> b = board_of_fd(fd);
    if (!b) {
        return false;
    }
    const int err = b->ioctl(fd, request, arg);
    *pResult = err == 0 ? 0 : -1;
    if (err != 0) {
        errno = err;
    }
    return true;
}

bool hook_poll(int fd, short events, short* pRevents, int timeout_ms, int* pResult) {
    std::shared_ptr<board> b = board_of_fd(fd);
    if (!b) {
        return false;
    }
    *pRevents = b->poll(events, timeout_ms);
    *pResult = *pRevents != 0 ? 1 : 0;
    return true;
}

bool hook_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset, void** pResult) {
    std::shared_ptr<board> b = board_of_fd(fd);
    if (!b) {
        return false;
    }
    registry& r = reg();
    void* p = nullptr;
    uint64_t generation = 0;
    int index = 0;
    const int err = b->mmap(addr, len, prot, flags, offset, &p, &generation, &index);
    if (err != 0) {
        errno = err;
        *pResult = MAP_FAILED;
        return true;
    }
    {
        std::lock_guard<std::mutex> lk(r.m_cs);
        r.m_maps.push_back(mapping{p, b, generation, index});
        ++r.m_nMaps;
    }
    *pResult = p;
    return true;
}

void hook_munmap(void* addr) {
    registry& r = reg();
    if (r.m_nMaps.load() == 0) {
        return;
    }
    mapping m{};
    {
        std::lock_guard<std::mutex> lk(r.m_cs);
        auto it = r.m_maps.begin();
        while (it != r.m_maps.end() && it->addr != addr) {
            ++it;
        }
        if (it == r.m_maps.end()) {
            return;
        }
        m = *it;
        r.m_maps.erase(it);
        --r.m_nMaps;
    }
    if (std::shared_ptr<board> b = m.owner.lock()) {
        b->unmapped(m.generation, m.index);
    }
}

}  // namespace kvvb

// -------------------------------------------------------------------------------------
// Control API

using kvvb::board;
using kvvb::reg;

namespace {

std::shared_ptr<board> node_board(const char* node) {
    return node ? reg().find_node(node) : nullptr;
}

}  // namespace

extern "C" {

void kv_vboard_default_config(struct kv_vboard_config* cfg) {
    if (!cfg) {
        return;
    }
    memset(cfg, 0, sizeof(*cfg));
    const kvvb::board_config d;
    snprintf(cfg->node, sizeof(cfg->node), "%s", d.node.c_str());
    cfg->mplane = d.mplane ? 1 : 0;
    cfg->sizeimage = d.sizeimage;
    cfg->buffers = d.buffers;
    cfg->first_sequence = d.first_sequence;
    cfg->ppm = d.ppm;
    cfg->freerun = d.freerun ? 1 : 0;
    cfg->counter_start = d.counter_start;
    cfg->sequence_restart = d.sequence_restart;
}

int kv_vboard_add(const struct kv_vboard_config* cfg) {
    if (!cfg) {
        return -1;
    }
    try {
        kvvb::board_config c;
        c.node.assign(cfg->node, strnlen(cfg->node, sizeof(cfg->node)));
        c.mplane = cfg->mplane != 0;
        c.sizeimage = cfg->sizeimage;
        c.buffers = cfg->buffers;
        c.first_sequence = cfg->first_sequence;
        c.ppm = cfg->ppm;
        c.freerun = cfg->freerun != 0;
        c.counter_start = cfg->counter_start;
        c.sequence_restart = cfg->sequence_restart;
        if (!kvvb::valid(c)) {
            return -1;
        }
        reg().add(c, std::string(cfg->capture, strnlen(cfg->capture, sizeof(cfg->capture))));
        return 0;
    } catch (...) {
        return -1;
    }
}

void kv_vboard_remove_all(void) {
    kvvb::registry& r = reg();
    std::vector<std::pair<std::string, std::shared_ptr<board>>> gone;
    {
        std::lock_guard<std::mutex> lk(r.m_cs);
        gone.swap(r.m_nodes);
    }
    // Boards nobody holds any more are destroyed here, outside the registry lock.
}

int kv_vboard_set_fault(const char* node, enum kv_vboard_call call, uint32_t from_nth,
                        uint32_t count, int err) {
    std::shared_ptr<board> b = node_board(node);
    if (!b || unsigned(call) >= kvvb::kCallKinds || err <= 0) {
        return -1;
    }
    b->set_fault(unsigned(call), from_nth, count, err);
    return 0;
}

void kv_vboard_clear_faults(const char* node) {
    if (std::shared_ptr<board> b = node_board(node)) {
        b->clear_faults();
    }
}

int kv_vboard_vanish(const char* node) {
    std::shared_ptr<board> b = node_board(node);
    if (!b) {
        return -1;
    }
    b->vanish();
    return 0;
}

int kv_vboard_get_counters(const char* node, struct kv_vboard_counters* out) {
    std::shared_ptr<board> b = node_board(node);
    if (!b || !out) {
        return -1;
    }
    *out = b->counters();
    return 0;
}

int kv_vboard_set_counter_value(const char* node, uint32_t value) {
    std::shared_ptr<board> b = node_board(node);
    if (!b) {
        return -1;
    }
    b->set_counter_value(value);
    return 0;
}

int kv_vboard_insert_idle_frames(const char* node, uint32_t n) {
    std::shared_ptr<board> b = node_board(node);
    if (!b) {
        return -1;
    }
    b->insert_idle_frames(n);
    return 0;
}

int kv_vboard_restart_sequence(const char* node, uint32_t value) {
    std::shared_ptr<board> b = node_board(node);
    if (!b) {
        return -1;
    }
    b->restart_sequence(value);
    return 0;
}

}  // extern "C"
