// lyrabox-devserver: a local Lyrabox-compatible service for development and tests.
#include "devserver.h"
#include "store.h"

#include <QDir>
#include <QString>

#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

void usage(FILE *out)
{
    std::fprintf(out, "usage: lyrabox-devserver [--port N] [--data DIR] [--quiet]\n"
                      "  --port N    port on 127.0.0.1 (0, the default, picks a free one)\n"
                      "  --data DIR  folder for accounts and uploaded files (default: ./lyrabox-data)\n"
                      "  --quiet     do not log requests on standard error\n");
}

} // namespace

int main(int argc, char **argv)
{
    int port = 0;
    QString data = QStringLiteral("lyrabox-data");
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (std::strcmp(arg, "--port") == 0 && i + 1 < argc) {
            bool ok = false;
            port = QString::fromLocal8Bit(argv[++i]).toInt(&ok);
            if (!ok || port < 0 || port > 65535) {
                std::fprintf(stderr, "lyrabox-devserver: invalid port %s\n", argv[i]);
                return 2;
            }
        } else if (std::strcmp(arg, "--data") == 0 && i + 1 < argc) {
            data = QString::fromLocal8Bit(argv[++i]);
        } else if (std::strcmp(arg, "--quiet") == 0) {
            quiet = true;
        } else if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    // A client that goes away mid-answer must not end the server.
    std::signal(SIGPIPE, SIG_IGN);

    Store store(QDir(data).absolutePath());
    QString error;
    if (!store.open(&error)) {
        std::fprintf(stderr, "lyrabox-devserver: %s\n", qPrintable(error));
        return 1;
    }
    DevServer server(store);
    server.setQuiet(quiet);
    const int bound = server.bind(port);
    if (bound <= 0) {
        std::fprintf(stderr, "lyrabox-devserver: cannot listen on 127.0.0.1:%d\n", port);
        return 1;
    }
    std::printf("listening on http://127.0.0.1:%d\n", bound);
    std::fflush(stdout);
    if (!quiet)
        std::fprintf(stderr, "data in %s; demo account %s / %s\n", qPrintable(store.dataDirectory()), Store::kDemoEmail,
                     Store::kDemoPassword);
    return server.run() ? 0 : 1;
}
