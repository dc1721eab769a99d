// The clips that are open, and the opening of others: by the caller where the container has tables,
// by a thread of its own where the file has to be read through.
#include "mediaio/errorlog.h"
#include "mediaio/foreign/clip.h"
#include "mediaio/store/log.h"

#include <condition_variable>
#include <semaphore>
#include <system_error>
#include <thread>

namespace zemstore {
namespace {

constexpr const WCHAR* kSource = TEXT("cliptable.cpp");

// A file that is open, or is being opened by one thread while others wait for it.
struct Slot {
    std::mutex lock;  // guards what follows
    std::condition_variable changed;
    bool busy = false;
    HRESULT result = S_OK;  // of the last opening
    SourceStamp resultOf;
    std::weak_ptr<CForeignClip> clip;
    std::shared_ptr<CForeignClip> kept;  // until somebody comes for what a pass found

    // Takes the opener's reference: when others see the clip, who came for it alone holds it.
    void Finish(std::shared_ptr<CForeignClip> opened, const SourceStamp& stamp, HRESULT hr,
                bool keep) {
        std::lock_guard hold(lock);
        busy = false;
        result = hr;
        resultOf = stamp;
        if (SUCCEEDED(hr)) clip = opened;
        if (SUCCEEDED(hr) && keep) kept = opened;
        opened.reset();
        changed.notify_all();
    }
};
struct Table {
    std::mutex lock;
    std::map<FileIdentity, std::shared_ptr<Slot>> slots;
};

std::shared_ptr<Slot> SlotOf(const FileIdentity& identity) {
    static auto* table = new Table;  // clips may outlive the end of main
    std::lock_guard hold(table->lock);
    std::erase_if(table->slots, [](const auto& entry) {
        return entry.second.use_count() == 1 && entry.second->clip.expired();
    });
    std::shared_ptr<Slot>& slot = table->slots[identity];
    if (slot == nullptr) slot = std::make_shared<Slot>();
    return slot;
}

// The threads that read files through, a few at a time. The end of the process stops them.
class CPasses {
public:
    static CPasses& The() {
        static CPasses passes;
        return passes;
    }
    template <typename Work>
    bool Start(Work work) {
        {
            std::lock_guard hold(m_lock);
            ++m_count;
        }
        try {
            std::thread([this, work = std::move(work)]() mutable {
                m_atOnce.acquire();
                {
                    Work job(std::move(work));
                    job();
                }
                m_atOnce.release();
                End();
            }).detach();
            return true;
        } catch (const std::system_error&) {
            End();
            return false;
        }
    }
    void Await() {
        std::unique_lock hold(m_lock);
        m_idle.wait(hold, [this] { return m_count == 0; });
    }
    ~CPasses() {
        CDemuxer::StopAll();
        Await();
    }

private:
    void End() {
        std::lock_guard hold(m_lock);
        --m_count;
        m_idle.notify_all();
    }
    std::counting_semaphore<> m_atOnce{3};
    std::mutex m_lock;
    std::condition_variable m_idle;
    size_t m_count = 0;
};

}  // namespace

std::atomic<std::chrono::milliseconds> CForeignClip::s_patience{std::chrono::seconds(5)};

void CForeignClip::AwaitPasses() {
    CPasses::The().Await();
}

HRESULT CForeignClip::Share(ForeignSource source, std::shared_ptr<CForeignClip>& clip) {
    SourceStamp stamp;
    HRESULT hr = source.file->Size(stamp.size_bytes);
    if (SUCCEEDED(hr)) hr = source.file->ModifiedTime(stamp.modified);
    if (FAILED(hr)) return hr;
    const std::shared_ptr<Slot> slot = SlotOf(source.file->Identity());
    const auto deadline = std::chrono::steady_clock::now() + s_patience.load();
    // What the opening of this very file came to, ours or another's; false while it goes on.
    const auto settled = [&](std::unique_lock<std::mutex>& hold) {
        if (!slot->changed.wait_until(hold, deadline, [&] { return !slot->busy; })) {
            hr = HRESULT_FROM_WIN32(ERROR_BUSY);
            LogStore(kErrorLogLevelWarning, hr, kSource,
                     source.path + ": its index is being made; open it again later");
            return true;
        }
        clip = slot->clip.lock();
        slot->kept.reset();
        if (clip != nullptr && clip->m_stamp == stamp) {
            hr = S_OK;
            return true;
        }
        clip.reset();
        hr = slot->result;
        return FAILED(hr) && slot->resultOf == stamp;
    };
    std::unique_lock hold(slot->lock);
    const bool waited = slot->busy;
    // An earlier failure is asked for again: the device may have recovered.
    if (settled(hold) && (waited || SUCCEEDED(hr))) return hr;
    slot->busy = true;
    hold.unlock();

    auto opening = std::make_shared<CForeignClip>(std::move(source.file), stamp);
    hr = E_OUTOFMEMORY;
    try {
        hr = opening->Load(*source.volume, source.path);
    } catch (const std::bad_alloc&) {
    }
    if (hr != S_FALSE) {
        slot->Finish(opening, stamp, hr, false);
        if (SUCCEEDED(hr)) clip = opening;
        return hr;
    }
    const bool started = CPasses::The().Start(
        [slot, opening, stamp, volume = source.volume, path = source.path]() mutable {
            HRESULT passed = E_OUTOFMEMORY;
            try {
                passed = opening->Pass(*volume, path);
            } catch (const std::bad_alloc&) {
            }
            slot->Finish(std::move(opening), stamp, passed, true);
        });
    if (!started) slot->Finish(opening, stamp, E_OUTOFMEMORY, false);
    hold.lock();
    if (!settled(hold) && SUCCEEDED(hr)) clip = opening;  // another came and left meanwhile
    return hr;
}

}  // namespace zemstore
