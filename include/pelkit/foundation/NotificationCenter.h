// Named notifications, delivered synchronously to observers. Thread-safe; observers run on the
// posting thread, outside the centre's lock, so an observer may post or add observers itself.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace pelkit {

struct Notification {
    std::string name;
    /// The object the notification is about; observers may filter on it. Compared by identity.
    const void* object = nullptr;
};

class NotificationCenter {
public:
    using ObserverId = std::uint64_t;
    using Callback = std::function<void(const Notification&)>;

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    static NotificationCenter& defaultCenter();

    /// Calls `callback` for each notification named `name` about `object` (any object when null).
    /// The registration stays until `removeObserver`.
    ObserverId addObserver(std::string name, const void* object, Callback callback);
    void removeObserver(ObserverId observer);
    void post(const Notification& notification);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace pelkit
