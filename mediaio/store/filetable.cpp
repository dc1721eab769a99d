// The table of shared files. An entry without an object stands for a file that a thread is loading.
#include "mediaio/store/filetable.h"

#include <map>

namespace zemstore {
namespace {

struct Table {
    std::mutex lock;
    std::condition_variable changed;
    std::map<FileIdentity, CMediaFile*> files;
};

Table& TheTable() {
    static auto* table = new Table;  // files may outlive the end of main
    return *table;
}

void Forget(CMediaFile& file) {
    Table& table = TheTable();
    std::lock_guard hold(table.lock);
    const auto found = table.files.find(file.Identity());
    if (found != table.files.end() && found->second == &file) table.files.erase(found);
    table.changed.notify_all();
}

}  // namespace

HRESULT ShareMediaFile(std::unique_ptr<IStoreFile> file, const std::shared_ptr<IAsyncIo>& async,
                       const std::string& openedAs, CMediaFile*& shared) {
    Table& table = TheTable();
    const FileIdentity identity = file->Identity();
    {
        std::unique_lock hold(table.lock);
        for (;;) {
            const auto found = table.files.find(identity);
            // An object whose last reference is gone is as good as none.
            if (found == table.files.end()) break;
            if (found->second != nullptr) {
                if (!found->second->TryAddRef()) break;
                shared = found->second;
                return S_OK;
            }
            table.changed.wait(hold);
        }
        table.files[identity] = nullptr;
    }
    CMediaFile* loading = nullptr;
    HRESULT hr = E_OUTOFMEMORY;
    try {
        loading = new CMediaFile(std::move(file), async, openedAs);
        hr = loading->Load();
    } catch (const std::bad_alloc&) {
    }
    {
        std::lock_guard hold(table.lock);
        if (SUCCEEDED(hr)) {
            table.files[identity] = loading;
            loading->m_forget = Forget;
        } else {
            table.files.erase(identity);
        }
    }
    table.changed.notify_all();
    if (FAILED(hr)) {
        if (loading != nullptr) loading->Release();
        return hr;
    }
    shared = loading;
    return S_OK;
}

void AwaitNoMediaFiles() {
    Table& table = TheTable();
    std::unique_lock hold(table.lock);
    table.changed.wait(hold, [&] { return table.files.empty(); });
}

}  // namespace zemstore
