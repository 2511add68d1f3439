#pragma once
// A pending list kept in memory, for tests of what reads and changes the list.
#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "recording/pending_recording.h"

namespace vell::test {

class MemoryPendingStore final : public recording::PendingRecordingStore {
public:
    std::vector<recording::PendingRecording> list;
    std::optional<std::string> failure;  // what saveFailure() reports: a full disk


    std::vector<recording::PendingRecording> pending() const override { return list; }
    bool update(const std::string& id, const std::function<void(recording::PendingRecording&)>& change) override {
        for (auto& r : list) {
            if (r.id == id) {
                change(r);
                return true;
            }
        }
        return false;
    }
    void add(recording::PendingRecording r) override { list.push_back(std::move(r)); }
    bool remove(const std::string& id) override { return std::erase_if(list, [&](auto& r) { return r.id == id; }) > 0; }
    std::optional<std::string> saveFailure() const override { return failure; }
    const recording::PendingRecording& at(const std::string& id) const {
        for (auto& r : list) {
            if (r.id == id) return r;
        }
        throw std::out_of_range(id);
    }
};

}  // namespace vell::test
