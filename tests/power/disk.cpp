#include "power/disk.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace power {

// Above this a file is torn at 512 bytes only where it is cut, and at 4,096 bytes in all other ways.
constexpr size_t SMALL = 65536;

int contents_t::number(const std::string& bytes) {
    const uint64_t hash = std::hash<std::string>()(bytes);
    const auto [first, last] = by_hash_.equal_range(hash);
    for (auto it = first; it != last; ++it)
        if (bytes_[static_cast<size_t>(it->second)] == bytes) return it->second;
    const int n = static_cast<int>(bytes_.size());
    bytes_.push_back(bytes);
    by_hash_.emplace(hash, n);
    return n;
}

disk_t::disk_t(contents_t* contents) : contents_(contents) {
    node_.push_back({.directory = true});  // the data directory itself is the operator's, and durable
}

int disk_t::find(const std::string& path) const {
    int at = 0;
    for (size_t from = 0; from < path.size();) {
        const size_t slash = std::min(path.find('/', from), path.size());
        const std::string name = path.substr(from, slash - from);
        from = slash + 1;
        if (name.empty() || name == ".") continue;
        const auto& names = node_[static_cast<size_t>(at)].names;
        const auto it = names.find(name);
        if (it == names.end() || it->second.back() < 0) return -1;
        at = it->second.back();
    }
    return at;
}

std::pair<int, std::string> disk_t::parent(const std::string& path) const {
    const size_t slash = path.rfind('/');
    const int dir = slash == std::string::npos ? 0 : find(path.substr(0, slash));
    if (dir < 0) throw std::runtime_error("the trace names what is not there: " + path);
    return {dir, path.substr(slash == std::string::npos ? 0 : slash + 1)};
}

int disk_t::create(bool directory, ino_t ino) {
    node_.push_back({.directory = directory});
    const int n = static_cast<int>(node_.size()) - 1;
    node_of_[ino] = n;  // the number of one that is gone may be given again
    return n;
}

void disk_t::set(const std::string& path, int node) {
    const auto [dir, name] = parent(path);
    auto& values = node_[static_cast<size_t>(dir)].names[name];
    if (values.empty()) values.push_back(-1);
    values.push_back(node);
}

int disk_t::node(ino_t ino) const {
    const auto it = node_of_.find(ino);
    if (it == node_of_.end()) throw std::runtime_error("the trace is about an unknown file");
    return it->second;
}

void disk_t::add(const std::string& path, const std::string& bytes, ino_t ino) {
    const int n = create(false, ino);
    node_[static_cast<size_t>(n)].flushed = node_[static_cast<size_t>(n)].present = bytes;
    const auto [dir, name] = parent(path);
    node_[static_cast<size_t>(dir)].names[name] = {n};
}

void disk_t::add_directory(const std::string& path, ino_t ino) {
    if (path.empty()) {
        node_of_[ino] = 0;
        return;
    }
    const int n = create(true, ino);
    const auto [dir, name] = parent(path);
    node_[static_cast<size_t>(dir)].names[name] = {n};
}

void disk_t::made(const std::string& path, bool directory, ino_t ino) { set(path, create(directory, ino)); }

void disk_t::renamed(const std::string& from, const std::string& to) {
    const int n = find(from);
    if (n < 0) throw std::runtime_error("the trace renames what is not there: " + from);
    set(to, n);
    set(from, -1);
}

void disk_t::removed(const std::string& path) { set(path, -1); }

void disk_t::wrote(ino_t ino, int64_t offset, const std::string& bytes) {
    node_t& file = node_[static_cast<size_t>(node(ino))];
    const size_t end = static_cast<size_t>(offset) + bytes.size();
    if (file.present.size() < end) file.present.resize(end);
    file.present.replace(static_cast<size_t>(offset), bytes.size(), bytes);
    file.dirty = true;
    file.found.clear();
}

void disk_t::cut(ino_t ino, int64_t size) {
    node_t& file = node_[static_cast<size_t>(node(ino))];
    file.present.resize(static_cast<size_t>(size));
    file.dirty = file.dirty || file.present != file.flushed;
    file.found.clear();
}

void disk_t::flushed(ino_t ino) {
    node_t& node = node_[static_cast<size_t>(this->node(ino))];
    for (auto it = node.names.begin(); it != node.names.end();) {
        it->second = {it->second.back()};
        it = it->second[0] < 0 ? node.names.erase(it) : std::next(it);
    }
    node.flushed = node.present;
    node.dirty = false;
    node.found.clear();
}

const std::vector<int>& disk_t::found(node_t* file) {
    if (!file->found.empty()) return file->found;
    const std::string& was = file->flushed;
    const std::string& is = file->present;
    std::set<int> all = {contents_->number(was), contents_->number(is)};
    if (file->dirty) {
        for (const size_t block : {size_t{512}, size_t{4096}}) {
            const bool all_ways = is.size() <= SMALL || block == 4096;
            for (size_t at = 0; at < is.size(); at += block) {
                all.insert(contents_->number(is.substr(0, at)));
                if (!all_ways) continue;
                const size_t n = std::min(block, is.size() - at);
                std::string ahead = is, behind = is, hole = is, old = is;
                ahead.replace(at, std::string::npos, is.size() - at, '\0');
                behind.replace(0, at + n, at + n, '\0');
                hole.replace(at, n, n, '\0');
                for (const std::string& torn : {ahead, behind, hole}) all.insert(contents_->number(torn));
                if (at >= was.size()) continue;
                old.replace(at, n, was.substr(at, n));
                all.insert(contents_->number(old));
            }
        }
    }
    file->found.assign(all.begin(), all.end());
    return file->found;
}

void disk_t::each_state(const std::function<void(const state_t&)>& use) {
    // Choices are made name by name. A directory that was chosen adds its names to those to come; a file that
    // two names lead to is found with one content.
    struct name_t {
        std::string path;
        const std::vector<int>* values;
    };
    std::vector<name_t> names;
    std::map<int, int> chosen;  // contents of files by their nodes
    state_t state;
    const auto add_names = [&](const std::string& dir, const node_t& node) {
        for (const auto& [name, values] : node.names) names.push_back({dir + name, &values});
    };
    const std::function<void(size_t)> choose = [&](size_t at) {
        if (at == names.size()) {
            use(state);
            return;
        }
        const name_t name = names[at];
        std::vector<int> tried;
        for (const int n : *name.values) {
            if (std::find(tried.begin(), tried.end(), n) != tried.end()) continue;
            tried.push_back(n);
            if (n < 0) {
                choose(at + 1);
                continue;
            }
            node_t& node = node_[static_cast<size_t>(n)];
            if (node.directory) {
                state[name.path] = DIRECTORY;
                const size_t size = names.size();
                add_names(name.path + "/", node);
                choose(at + 1);
                names.resize(size);
            } else if (const auto it = chosen.find(n); it != chosen.end()) {
                state[name.path] = it->second;
                choose(at + 1);
            } else {
                for (const int content : found(&node)) {
                    state[name.path] = chosen[n] = content;
                    choose(at + 1);
                }
                chosen.erase(n);
            }
            state.erase(name.path);
        }
    };
    add_names("", node_[0]);
    choose(0);
}

}  // namespace power
