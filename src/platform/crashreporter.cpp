#include "platform/crashreporter.h"

#include "core/appinfo.h"
#include "core/logger.h"
#include "core/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <exception>
#include <execinfo.h>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <typeinfo>
#include <unistd.h>

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

// Prepared by start(), read by the handlers. Fixed buffers: a handler must
// not allocate.
char g_reportPath[4096];
char g_logPath[4096];
char g_header[1024];
std::atomic<bool> g_started{false};
// The thread writing the report, 0 while none is.
std::atomic<pid_t> g_reportingThread{0};

// --- a stack for the handler on every thread ---------------------------------

// A thread that overflows its stack can only run the handler on a stack of
// its own, and the kernel keeps one per thread: each thread sets up its own.
class AlternateStack
{
public:
    ~AlternateStack()
    {
        if (m_memory == nullptr) {
            return;
        }
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        ::sigaltstack(&off, nullptr);
        ::munmap(m_memory, m_size);
    }

    void install()
    {
        stack_t current{};
        if (m_memory != nullptr || ::sigaltstack(nullptr, &current) != 0 || !(current.ss_flags & SS_DISABLE)) {
            return; // already set up, here or by someone else
        }
        const auto page = size_t(::sysconf(_SC_PAGESIZE));
        const long minimum = ::sysconf(_SC_MINSIGSTKSZ);
        size_t usable = size_t(64) * 1024;
        if (minimum > 0 && size_t(minimum) * 4 > usable) {
            usable = (size_t(minimum) * 4 + page - 1) / page * page;
        }
        // One page more at the bottom, left inaccessible, so a handler that
        // runs out of room faults instead of writing over a neighbour.
        const size_t size = usable + page;
        void *memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (memory == MAP_FAILED) {
            return;
        }
        ::mprotect(memory, page, PROT_NONE);
        stack_t stack{};
        stack.ss_sp = static_cast<char *>(memory) + page;
        stack.ss_size = usable;
        if (::sigaltstack(&stack, nullptr) != 0) {
            ::munmap(memory, size);
            return;
        }
        m_memory = memory;
        m_size = size;
    }

private:
    void *m_memory = nullptr;
    size_t m_size = 0;
};

thread_local AlternateStack t_alternateStack;

struct ThreadStart
{
    void *(*routine)(void *);
    void *argument;
};

void *startWithAlternateStack(void *data)
{
    const ThreadStart start = *static_cast<ThreadStart *>(data);
    delete static_cast<ThreadStart *>(data);
    t_alternateStack.install();
    return start.routine(start.argument);
}

// --- async-signal-safe helpers ---------------------------------------------

size_t textLength(const char *text)
{
    size_t n = 0;
    while (text[n] != '\0') {
        ++n;
    }
    return n;
}

void writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        data += n;
        size -= size_t(n);
    }
}

void writeText(int fd, const char *text)
{
    writeAll(fd, text, textLength(text));
}

// Appends the decimal digits of value, at least width of them.
char *appendNumber(char *out, long long value, int width = 1)
{
    char digits[24];
    int n = 0;
    const bool negative = value < 0;
    unsigned long long v =
        negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    do {
        digits[n++] = char('0' + v % 10);
        v /= 10;
    } while (v != 0);
    while (n < width) {
        digits[n++] = '0';
    }
    if (negative) {
        *out++ = '-';
    }
    while (n > 0) {
        *out++ = digits[--n];
    }
    *out = '\0';
    return out;
}

char *appendText(char *out, const char *text)
{
    while (*text != '\0') {
        *out++ = *text++;
    }
    *out = '\0';
    return out;
}

// The log's date form, "2026-11-14 23:43:41 +0000", without gmtime (which is
// not safe in a signal handler): days since 1970 to a civil date.
void formatTimestamp(char *out)
{
    struct timespec now
    {
    };
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long long seconds = now.tv_sec;
    long long days = seconds / 86400;
    long long rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    const long long z = days + 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const long long doe = z - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    const long long day = doy - (153 * mp + 2) / 5 + 1;
    const long long month = mp < 10 ? mp + 3 : mp - 9;
    const long long year = yoe + era * 400 + (month <= 2 ? 1 : 0);

    out = appendNumber(out, year, 4);
    out = appendText(out, "-");
    out = appendNumber(out, month, 2);
    out = appendText(out, "-");
    out = appendNumber(out, day, 2);
    out = appendText(out, " ");
    out = appendNumber(out, rest / 3600, 2);
    out = appendText(out, ":");
    out = appendNumber(out, rest / 60 % 60, 2);
    out = appendText(out, ":");
    out = appendNumber(out, rest % 60, 2);
    appendText(out, " +0000");
}

const char *signalName(int signal)
{
    switch (signal) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGABRT:
        return "SIGABRT";
    case SIGBUS:
        return "SIGBUS";
    case SIGFPE:
        return "SIGFPE";
    case SIGILL:
        return "SIGILL";
    default:
        return "signal";
    }
}

// The report: what happened, when, and the stack of the thread that died.
void writeReport(const char *reason, const char *detail, pid_t thread)
{
    if (g_reportPath[0] == '\0') {
        return;
    }
    const int fd = ::open(g_reportPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    char time[64];
    formatTimestamp(time);
    writeText(fd, g_header);
    writeText(fd, "Time: ");
    writeText(fd, time);
    writeText(fd, "\nReason: ");
    writeText(fd, reason);
    char threadLine[64];
    char *end = appendText(threadLine, "\nThread: ");
    end = appendNumber(end, thread);
    appendText(end, thread == ::getpid() ? " (main)\n" : "\n");
    writeText(fd, threadLine);
    if (detail && detail[0] != '\0') {
        writeText(fd, "Description: ");
        writeText(fd, detail);
        writeText(fd, "\n");
    }
    writeText(fd, "\nBacktrace:\n");
    void *frames[128];
    const int count = ::backtrace(frames, 128);
    ::backtrace_symbols_fd(frames, count, fd);
    ::fsync(fd);
    ::close(fd);
}

// One line in the log's own format, written past the logger (whose lock may
// be held by the thread that crashed).
void writeLogLine(const char *reason)
{
    char line[8192];
    char *end = line;
    formatTimestamp(end);
    end += textLength(end);
    end = appendText(end, ": Crash report written: ");
    // Both prepared paths fit the buffer: each is below 4096 bytes.
    end = appendText(end, g_reportPath[0] != '\0' ? g_reportPath : "(none)");
    end = appendText(end, " (");
    const size_t room = sizeof(line) - size_t(end - line) - 3;
    size_t n = textLength(reason);
    if (n > room) {
        n = room;
    }
    for (size_t i = 0; i < n; ++i) {
        *end++ = reason[i];
    }
    end = appendText(end, ")\n");

    writeAll(STDERR_FILENO, line, size_t(end - line));
    if (g_logPath[0] == '\0') {
        return;
    }
    const int fd = ::open(g_logPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return;
    }
    writeAll(fd, line, size_t(end - line));
    ::fsync(fd);
    ::close(fd);
}

void restoreDefaultAndRaise(int signal)
{
    struct sigaction action
    {
    };
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signal);
    ::_exit(128 + signal);
}

// True when the calling thread is to write the report. A second thread that
// dies meanwhile waits for the first, whose re-raised signal ends the process
// with its report whole; it gives up after a while in case the first hangs.
// A crash inside the handler itself ends the process at once.
bool claimReport(pid_t self)
{
    pid_t reporting = 0;
    if (g_reportingThread.compare_exchange_strong(reporting, self)) {
        return true;
    }
    if (reporting != self) {
        struct timespec tick
        {
            0, 10L * 1000 * 1000
        };
        for (int i = 0; i < 1000; ++i) {
            ::nanosleep(&tick, nullptr);
        }
    }
    return false;
}

void onFatalSignal(int signal)
{
    const pid_t self = ::gettid();
    if (claimReport(self)) {
        char reason[64];
        char *end = appendText(reason, "signal ");
        end = appendNumber(end, signal);
        end = appendText(end, ", ");
        appendText(end, signalName(signal));
        writeReport(reason, nullptr, self);
        writeLogLine(reason);
    }
    restoreDefaultAndRaise(signal);
}

[[noreturn]] void reportAndAbort(const char *reason, const char *detail)
{
    const pid_t self = ::gettid();
    if (claimReport(self)) {
        writeReport(reason, detail, self);
        std::string logged = std::string(reason) + ": " + detail;
        writeLogLine(logged.c_str());
    }
    restoreDefaultAndRaise(SIGABRT);
    std::abort();
}

std::string demangled(const char *name)
{
    int status = 0;
    char *readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string result = (status == 0 && readable) ? readable : name;
    std::free(readable);
    return result;
}

[[noreturn]] void onTerminate()
{
    std::string detail = "std::terminate without an active exception";
    if (std::exception_ptr current = std::current_exception()) {
        const std::type_info *type = abi::__cxa_current_exception_type();
        const std::string typeName = type ? demangled(type->name()) : std::string("unknown type");
        try {
            std::rethrow_exception(current);
        } catch (const std::exception &e) {
            detail = typeName + ": " + e.what();
        } catch (...) {
            detail = typeName;
        }
    }
    reportAndAbort("uncaught exception", detail.c_str());
}

void copyPath(char *target, size_t size, const QString &path)
{
    const QByteArray bytes = QFile::encodeName(path);
    if (bytes.isEmpty() || size_t(bytes.size()) >= size) {
        target[0] = '\0';
        return;
    }
    std::memcpy(target, bytes.constData(), size_t(bytes.size()) + 1);
}

} // namespace

// Threads that libraries start (Qt's pools, std::thread) can be reached only
// here: the executable's definition comes before libc's when symbols are
// looked up, so every thread started after the reporter gets its handler
// stack before running anything.
extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*routine)(void *),
                              void *argument) noexcept
{
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto create = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (create == nullptr) {
        return EAGAIN;
    }
    ThreadStart *start = g_started.load() ? new (std::nothrow) ThreadStart{routine, argument} : nullptr;
    if (start == nullptr) {
        return create(thread, attributes, routine, argument);
    }
    const int result = create(thread, attributes, startWithAlternateStack, start);
    if (result != 0) {
        delete start;
    }
    return result;
}

namespace CrashReporter {

QString crashDirectory()
{
    const QString data = Paths::dataDirectory();
    return data.isEmpty() ? QString() : data + QStringLiteral("/Crashes");
}

QString reportPath()
{
    return QFile::decodeName(g_reportPath);
}

bool isStarted()
{
    return g_started.load();
}

void start()
{
    if (g_started.exchange(true)) {
        return;
    }
    const QString folder = crashDirectory();
    if (!folder.isEmpty() && QDir().mkpath(folder)) {
        const QString name = QStringLiteral("Pelicane_%1_%2.crash")
                                 .arg(QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-dd_HH-mm-ss")))
                                 .arg(::getpid());
        copyPath(g_reportPath, sizeof(g_reportPath), folder + QLatin1Char('/') + name);
    }
    const QUrl log = Logger::logFileURL();
    copyPath(g_logPath, sizeof(g_logPath), log.isValid() ? log.toLocalFile() : QString());

    const QByteArray header = QStringLiteral("Pelicane for Mac v%1 (%2)\nProcess: %3\nLaunched: %4\n")
                                  .arg(AppInfo::shortVersion(), AppInfo::buildNumber())
                                  .arg(::getpid())
                                  .arg(Logger::timestamp())
                                  .toUtf8()
                                  .left(sizeof(g_header) - 1);
    std::memcpy(g_header, header.constData(), size_t(header.size()));
    g_header[header.size()] = '\0';

    // backtrace() loads its unwinder on first use; do that now, not in a handler.
    void *frames[4];
    ::backtrace(frames, 4);

    t_alternateStack.install();

    // No SA_RESETHAND: a second thread that dies while the first writes the
    // report must wait in the handler, not end the process half-way.
    struct sigaction action
    {
    };
    action.sa_handler = onFatalSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    for (int signal : kFatalSignals) {
        ::sigaction(signal, &action, nullptr);
    }
    std::set_terminate(onTerminate);
}

void reportException(const QString &description)
{
    const QByteArray detail = description.toUtf8();
    reportAndAbort("uncaught exception", detail.constData());
}

} // namespace CrashReporter
