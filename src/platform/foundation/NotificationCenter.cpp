#include <pelkit/foundation/NotificationCenter.h>

#include <mutex>
#include <vector>

namespace pelkit {

struct NotificationCenter::State {
    struct Observer {
        ObserverId id;
        std::string name;
        const void* object;
        std::shared_ptr<Callback> callback;
    };
    std::mutex mutex;
    ObserverId nextId = 1;
    std::vector<Observer> observers;
};

NotificationCenter::NotificationCenter() : state_(std::make_unique<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: observers registered for the process's lifetime may still be notified late.
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(std::string name, const void* object,
                                                               Callback callback) {
    std::lock_guard lock(state_->mutex);
    ObserverId id = state_->nextId++;
    state_->observers.push_back(
        {id, std::move(name), object, std::make_shared<Callback>(std::move(callback))});
    return id;
}

void NotificationCenter::removeObserver(ObserverId observer) {
    std::lock_guard lock(state_->mutex);
    std::erase_if(state_->observers, [&](const auto& o) { return o.id == observer; });
}

void NotificationCenter::post(const Notification& notification) {
    std::vector<std::shared_ptr<Callback>> matching;
    {
        std::lock_guard lock(state_->mutex);
        for (const auto& o : state_->observers)
            if (o.name == notification.name && (!o.object || o.object == notification.object))
                matching.push_back(o.callback);
    }
    for (const auto& callback : matching)
        (*callback)(notification);
}

} // namespace pelkit
