#include "ItemCore.h"

#include <pelkit/foundation/NotificationCenter.h>

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace pelkit::media {
namespace {

/// Threads of destroyed items that are still on their way out. Each is joined once it has said
/// it is done: when the next item stops, or at exit. The process waits for them there (briefly:
/// their I/O is interrupted), so none of them is cut off while it closes its device or posts a
/// notification, and none is still ending while the process's own exit work runs.
class StoppingThreads {
public:
    static StoppingThreads& instance() {
        static StoppingThreads threads;
        return threads;
    }
    void add(std::thread thread) {
        std::vector<std::thread> done;
        {
            std::lock_guard lock(mutex_);
            running_.push_back(std::move(thread));
            done = takeFinished();
        }
        for (auto& t : done)
            t.join();
    }
    /// The last call of a stopping item's thread. It may come before the thread is added.
    void finished(std::thread::id id) {
        std::lock_guard lock(mutex_);
        finished_.push_back(id);
        done_.notify_all();
    }
    ~StoppingThreads() {
        std::vector<std::thread> done;
        {
            std::unique_lock lock(mutex_);
            done_.wait_for(lock, std::chrono::seconds(2), [this] {
                return std::ranges::all_of(running_, [this](const std::thread& t) {
                    return std::ranges::find(finished_, t.get_id()) != finished_.end();
                });
            });
            done = takeFinished();
            for (auto& t : running_)
                t.detach(); // stuck in I/O: it is cut off with the process
        }
        for (auto& t : done)
            t.join();
    }

private:
    // Made first, so that it is destroyed after this waiter has waited.
    StoppingThreads() { NotificationCenter::defaultCenter(); }

    std::vector<std::thread> takeFinished() {
        std::vector<std::thread> done;
        std::erase_if(running_, [&](std::thread& t) {
            const auto id = std::ranges::find(finished_, t.get_id());
            if (id == finished_.end())
                return false;
            finished_.erase(id);
            done.push_back(std::move(t));
            return true;
        });
        return done;
    }

    std::mutex mutex_;
    std::condition_variable done_;
    std::vector<std::thread> running_;
    std::vector<std::thread::id> finished_; ///< said so, not yet joined
};

} // namespace

// --- PlayerItem::Core ----------------------------------------------------------------------

void PlayerItem::Core::attach(const void* owner, EndHook hook, bool playing) {
    std::lock_guard lock(mutex_);
    owner_ = owner;
    endHook_ = std::move(hook);
    commands_.playing = playing;
    changed_.notify_all();
}

void PlayerItem::Core::detach() {
    std::lock_guard lock(mutex_);
    owner_ = nullptr;
    endHook_ = nullptr;
    commands_.playing = false;
    changed_.notify_all();
}

const void* PlayerItem::Core::owner() const {
    std::lock_guard lock(mutex_);
    return owner_;
}

void PlayerItem::Core::setPlaying(bool playing) {
    std::lock_guard lock(mutex_);
    commands_.playing = playing;
    changed_.notify_all();
}

void PlayerItem::Core::requestSeekToZero() {
    std::lock_guard lock(mutex_);
    ++commands_.seeks;
    changed_.notify_all();
}

void PlayerItem::Core::cancel() {
    std::lock_guard lock(mutex_);
    cancelled = true;
    changed_.notify_all();
}

ErrorPtr PlayerItem::Core::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

ItemCommands PlayerItem::Core::commands() const {
    std::lock_guard lock(mutex_);
    return commands_;
}

void PlayerItem::Core::waitForChange(
    const ItemCommands& applied, std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::unique_lock lock(mutex_);
    auto changed = [&] { return cancelled || commands_ != applied; };
    if (deadline)
        changed_.wait_until(lock, *deadline, changed);
    else
        changed_.wait(lock, changed);
}

void PlayerItem::Core::fail(ErrorPtr error) {
    {
        std::lock_guard lock(mutex_);
        error_ = std::move(error);
    }
    status = Status::failed;
}

void PlayerItem::Core::reachEnd() {
    EndHook hook;
    {
        std::lock_guard lock(mutex_);
        hook = endHook_;
    }
    if (hook)
        hook(*this);
    else
        setPlaying(false);
    // Holding the item keeps the notification's object alive while observers look at it.
    if (auto owner = item.lock())
        NotificationCenter::defaultCenter().post({kPlayerItemDidPlayToEndTime, owner.get()});
}

// --- PlayerItem ----------------------------------------------------------------------------

PlayerItem::PlayerItem(std::string url) : core_(std::make_shared<Core>(std::move(url))) {}

std::shared_ptr<PlayerItem> PlayerItem::create(std::string url) {
    std::shared_ptr<PlayerItem> item(new PlayerItem(std::move(url)));
    item->core_->item = item;
    try {
        item->core_->thread = std::thread([core = item->core_]() mutable {
            runItem(*core);
            const bool stopping = core->exit.exchange(Core::Exit::finished) == Core::Exit::stopping;
            core.reset();
            if (stopping)
                StoppingThreads::instance().finished(std::this_thread::get_id());
        });
    } catch (const std::system_error& error) {
        item->core_->exit = Core::Exit::finished;
        item->core_->fail(Error::fromErrorCode("std::thread", error.code()));
    }
    return item;
}

PlayerItem::~PlayerItem() {
    // The thread may be the one destroying its item (an observer dropping it), and joining could
    // wait on a lock that the destroying thread holds; so unless it has finished already, it
    // finishes on its own and is joined later.
    const bool finished = core_->exit.exchange(Core::Exit::stopping) == Core::Exit::finished;
    core_->cancel();
    if (!core_->thread.joinable())
        return;
    if (finished)
        core_->thread.join(); // past its last work on the item
    else
        StoppingThreads::instance().add(std::move(core_->thread));
}

const std::string& PlayerItem::url() const {
    return core_->url;
}

Status PlayerItem::status() const {
    return core_->status;
}

ErrorPtr PlayerItem::error() const {
    return core_->error();
}

// --- Player ----------------------------------------------------------------------------------

struct Player::State {
    mutable std::mutex mutex; // guards item and rate
    std::shared_ptr<PlayerItem> item;
    float rate = 0;
    /// The current item's shared state, for the renderer's lock-free reads.
    SharedSlot<PlayerItem::Core> shown;
};

Player::Player() : state_(std::make_shared<State>()) {}

Player::~Player() {
    std::shared_ptr<PlayerItem> item;
    {
        std::lock_guard lock(state_->mutex);
        item = std::move(state_->item);
        state_->shown.store(nullptr);
    }
    if (item)
        item->core_->detach();
}

std::shared_ptr<PlayerItem> Player::currentItem() const {
    std::lock_guard lock(state_->mutex);
    return state_->item;
}

void Player::replaceCurrentItem(std::shared_ptr<PlayerItem> item) {
    std::shared_ptr<PlayerItem> previous; // let go of outside the lock
    std::lock_guard lock(state_->mutex);
    if (item == state_->item)
        return;
    if (item && item->core_->owner())
        fatalError("Player::replaceCurrentItem: the item already belongs to a player");
    previous = std::exchange(state_->item, item);
    if (previous)
        previous->core_->detach();
    state_->shown.store(item ? item->core_ : nullptr);
    if (!item)
        return;
    // At its end the item's thread stops the player, if the item is still its current one.
    auto hook = [weak = std::weak_ptr<State>(state_)](PlayerItem::Core& core) {
        if (auto state = weak.lock()) {
            // Both under the player's lock, so a play() racing the end is not half undone.
            std::lock_guard lock(state->mutex);
            if (state->item && state->item->core_.get() == &core) {
                state->rate = 0;
                core.setPlaying(false);
                return;
            }
        }
        core.setPlaying(false);
    };
    item->core_->attach(state_.get(), std::move(hook), state_->rate != 0);
}

void Player::play() {
    std::lock_guard lock(state_->mutex);
    state_->rate = 1;
    if (state_->item)
        state_->item->core_->setPlaying(true);
}

void Player::pause() {
    std::lock_guard lock(state_->mutex);
    state_->rate = 0;
    if (state_->item)
        state_->item->core_->setPlaying(false);
}

void Player::seekToZero() {
    std::lock_guard lock(state_->mutex);
    if (state_->item)
        state_->item->core_->requestSeekToZero();
}

float Player::rate() const {
    std::lock_guard lock(state_->mutex);
    return state_->rate;
}

TimeControlStatus Player::timeControlStatus() const {
    std::lock_guard lock(state_->mutex);
    if (state_->rate == 0)
        return TimeControlStatus::paused;
    if (state_->item && state_->item->status() == Status::readyToPlay)
        return TimeControlStatus::playing;
    return TimeControlStatus::waitingToPlayAtSpecifiedRate;
}

Status Player::status() const {
    std::lock_guard lock(state_->mutex);
    return state_->item ? state_->item->status() : Status::unknown;
}

ErrorPtr Player::error() const {
    std::lock_guard lock(state_->mutex);
    return state_->item ? state_->item->error() : nullptr;
}

std::shared_ptr<const image::Image> Player::currentFrame() const {
    auto core = state_->shown.load();
    return core ? core->frame.load() : nullptr;
}

} // namespace pelkit::media
