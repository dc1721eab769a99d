// The clips that are open, and the opening of others, each by a thread of its own: what libavformat
// makes of somebody else's bytes may take any time, and callers serve requests.
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

// A pass takes seconds by its nature. Few callers may wait for one to its end or theirs, so that
// the others stay free for who only reads frames.
constexpr int kLongWaits = 2;
std::atomic<int> g_longWaits{0};

class CLongWait {
public:
    CLongWait() : granted(g_longWaits.fetch_add(1) < kLongWaits) {
        if (!granted) --g_longWaits;
    }
    ~CLongWait() {
        if (granted) --g_longWaits;
    }
    CLongWait(const CLongWait&) = delete;
    CLongWait& operator=(const CLongWait&) = delete;
    const bool granted;
};

// A file that is open, or is being opened by one thread while others wait for it.
struct Slot {
    std::mutex lock;  // guards what follows
    std::condition_variable changed;
    bool busy = false;
    bool passing = false;  // while busy: the file is being read through
    std::chrono::steady_clock::time_point begun;
    HRESULT result = S_OK;  // of the last opening
    SourceStamp resultOf;
    std::weak_ptr<CForeignClip> clip;
    std::shared_ptr<CForeignClip> kept;  // until somebody comes for what a pass found

    // Takes the opener's reference: when others see the clip, who came for it alone holds it.
    void Finish(std::shared_ptr<CForeignClip> opened, const SourceStamp& stamp, HRESULT hr,
                bool keep) {
        std::lock_guard hold(lock);
        busy = passing = false;
        result = hr;
        resultOf = stamp;
        if (SUCCEEDED(hr)) clip = opened;
        if (SUCCEEDED(hr) && keep) kept = opened;
        opened.reset();
        changed.notify_all();
    }
    // REQUIRES: `lock`, held by `hold`.
    void Begin() {
        busy = true;
        begun = std::chrono::steady_clock::now();
    }
    void BeginPass() {
        std::lock_guard hold(lock);
        passing = true;
        changed.notify_all();
    }
    // False when the opening goes on and the caller has waited long enough, counted from when it
    // began: who comes late to one that takes its time does not wait at all.
    bool Await(std::unique_lock<std::mutex>& hold) {
        auto deadline = begun + CForeignClip::s_patience.load();
        changed.wait_until(hold, deadline, [this] { return !busy || passing; });
        if (!busy || !passing) return !busy;
        const CLongWait place;
        const auto now = std::chrono::steady_clock::now();
        if (!place.granted) deadline = std::min(deadline, now + CForeignClip::s_brief.load());
        return changed.wait_until(hold, deadline, [this] { return !busy; });
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
        if (entry.second.use_count() != 1) return false;
        const std::lock_guard last(entry.second->lock);  // what the last user wrote is to be seen
        return entry.second->clip.expired();
    });
    std::shared_ptr<Slot>& slot = table->slots[identity];
    if (slot == nullptr) slot = std::make_shared<Slot>();
    return slot;
}

// The threads that open files: some at a time look for tables, a few read files through. The end of
// the process stops them.
class COpeners {
public:
    static COpeners& The() {
        static COpeners openers;
        return openers;
    }
    template <typename Work>
    bool Start(Work work) {
        {
            std::lock_guard hold(m_lock);
            ++m_count;
        }
        try {
            std::thread([this, work = std::move(work)]() mutable {
                NameThisThread(TEXT("zem-opener"));
                {
                    Work job(std::move(work));
                    job();
                }
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
    ~COpeners() {
        CDemuxer::StopAll();
        Await();
    }

    std::counting_semaphore<> looks{8};
    std::counting_semaphore<> passes{3};

private:
    void End() {
        std::lock_guard hold(m_lock);
        --m_count;
        m_idle.notify_all();
    }
    std::mutex m_lock;
    std::condition_variable m_idle;
    size_t m_count = 0;
};

// One of a number of places; other threads wait meanwhile.
class CPlace {
public:
    explicit CPlace(std::counting_semaphore<>& places) : m_places(places) { m_places.acquire(); }
    ~CPlace() { m_places.release(); }
    CPlace(const CPlace&) = delete;
    CPlace& operator=(const CPlace&) = delete;

private:
    std::counting_semaphore<>& m_places;
};

}  // namespace

std::atomic<std::chrono::milliseconds> CForeignClip::s_patience{std::chrono::seconds(5)};
std::atomic<std::chrono::milliseconds> CForeignClip::s_brief{std::chrono::milliseconds(500)};

int CForeignClip::LongWaits() {
    return g_longWaits.load();
}

void CForeignClip::AwaitPasses() {
    COpeners::The().Await();
}

HRESULT CForeignClip::Open(IVolume& volume, const std::string& path,
                           const std::function<void()>& passBegins) {
    try {
        {
            const CPlace place(COpeners::The().looks);
            const HRESULT hr = LoadTables();
            if (hr != S_FALSE) return hr;
        }
        passBegins();
        const CPlace place(COpeners::The().passes);
        return Pass(volume, path);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT CForeignClip::Share(ForeignSource source, std::shared_ptr<CForeignClip>& clip) {
    SourceStamp stamp;
    HRESULT hr = source.file->Size(stamp.size_bytes);
    if (SUCCEEDED(hr)) hr = source.file->ModifiedTime(stamp.modified);
    if (FAILED(hr)) return hr;
    const std::shared_ptr<Slot> slot = SlotOf(source.file->Identity());
    // What the opening of this very file came to, ours or another's; false while it goes on.
    const auto settled = [&](std::unique_lock<std::mutex>& hold) {
        if (!slot->Await(hold)) {
            hr = HRESULT_FROM_WIN32(ERROR_BUSY);
            LogStoreOf(source.path, kErrorLogLevelWarning, hr, kSource,
                       "it is still being opened; open it again later");
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
    slot->Begin();
    hold.unlock();

    auto opening = std::make_shared<CForeignClip>(std::move(source.file), stamp);
    hr = E_OUTOFMEMORY;
    try {
        hr = opening->LoadKept(*source.volume, source.path);
    } catch (const std::bad_alloc&) {
    }
    if (hr != S_FALSE) {
        slot->Finish(opening, stamp, hr, false);
        if (SUCCEEDED(hr)) clip = opening;
        return hr;
    }
    const bool started = COpeners::The().Start(
        [slot, opening, stamp, volume = source.volume, path = source.path]() mutable {
            const HRESULT opened = opening->Open(*volume, path, [&slot] { slot->BeginPass(); });
            slot->Finish(std::move(opening), stamp, opened, true);
        });
    if (!started) slot->Finish(opening, stamp, E_OUTOFMEMORY, false);
    hold.lock();
    if (!settled(hold) && SUCCEEDED(hr)) clip = opening;  // another came and left meanwhile
    return hr;
}

}  // namespace zemstore
