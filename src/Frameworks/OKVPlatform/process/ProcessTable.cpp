#include <OKVPlatform/process/ProcFolder.h>
#include <OKVPlatform/process/ProcessTable.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace okv {

namespace {

int refuse(int error) noexcept {
    errno = error;
    return -1;
}

int checkRequest(const std::int32_t* name, std::uint32_t nameLength, const std::size_t* length,
                 const void* newValue) noexcept {
    // The length is looked at first: a name that is too long must not be read.
    if (nameLength > kMaxNameLength || length == nullptr) return EINVAL;
    if (newValue != nullptr) return EPERM;
    const bool isKnown = (nameLength == 3 || nameLength == 4) && name[0] == kCtlKern &&
                         name[1] == kKernProc && name[2] == kKernProcAll;
    return isKnown ? 0 : ENOENT;
}

bool saysProcessIsGone(int error) noexcept {
    return error == ENOENT || error == ESRCH || error == EACCES || error == EPERM;
}

std::size_t countedProcesses(ProcFolder& folder) noexcept {
    std::size_t count = 0;
    while (folder.nextPid() != 0) ++count;
    return count;
}

int answerSize(ProcFolder& folder, std::size_t& length) noexcept {
    auto count = folder.countHint();
    if (count == 0) count = countedProcesses(folder);
    length = (count + count / 8 + 8) * sizeof(ProcessRecord);
    return 0;
}

// Fills a buffer record by record. The buffer comes from outside and need not be aligned.
class RecordWriter {
public:
    RecordWriter(void* buffer, std::size_t size) noexcept
        : next_(static_cast<char*>(buffer)), left_(size) {}

    bool put(const ProcessRecord& record) noexcept {
        if (left_ < sizeof record) return false;
        std::memcpy(next_, &record, sizeof record);
        next_ += sizeof record;
        left_ -= sizeof record;
        written_ += sizeof record;
        return true;
    }
    std::size_t written() const noexcept { return written_; }

private:
    char* next_;
    std::size_t left_;
    std::size_t written_ = 0;
};

// 0, or the error that ended the walk.
int writeRecords(ProcFolder& folder, RecordWriter& writer) noexcept {
    char buffer[kStatusHead];
    while (const int pid = folder.nextPid()) {
        const auto text = folder.read(pid, "status", buffer);
        if (!text && !saysProcessIsGone(errno)) return errno;
        const auto status = text ? parseProcessStatus(*text) : std::nullopt;
        if (status && !writer.put(status->record)) return ENOMEM;
    }
    return errno;
}

}  // namespace

ProcessTable::~ProcessTable() = default;

KernelProcessTable::KernelProcessTable(std::string root) : root_(std::move(root)) {}

int KernelProcessTable::sysctl(const std::int32_t* name, std::uint32_t nameLength, void* buffer,
                               std::size_t* length, const void* newValue, std::size_t) {
    if (const int error = checkRequest(name, nameLength, length, newValue)) return refuse(error);
    ProcFolder folder(root_);
    if (!folder.isOpen()) return refuse(errno);
    if (buffer == nullptr) return answerSize(folder, *length);
    RecordWriter writer(buffer, *length);
    const int error = writeRecords(folder, writer);
    *length = writer.written();
    return error == 0 ? 0 : refuse(error);
}

}  // namespace okv
