#pragma once

#include "faults.h"
#include "store.h"

#include <atomic>
#include <memory>
#include <string>

namespace httplib {
class Server;
struct Request;
struct Response;
class ContentReader;
} // namespace httplib

// The local Lyrabox-compatible service: the JSON API under /s/JSON/, the upload endpoint
// under /upload/ (digest list and multipart uploads), the library download under
// /download/, and the test control endpoint under /control/.
class DevServer
{
public:
    explicit DevServer(Store &store);
    ~DevServer();

    void setQuiet(bool quiet) { m_quiet = quiet; }

    // Binds 127.0.0.1:port (0 picks a free port). Returns the port, or -1.
    int bind(int port);
    // Serves until stop(); returns false when serving failed.
    bool run();
    void stop();

private:
    // Reads a small body after applying the endpoint's faults and checking its type.
    // Returns false when the request was answered (or dropped) already.
    bool receiveSmallRequest(Endpoint endpoint, const httplib::Request &req, httplib::Response &res,
                             const httplib::ContentReader &reader, const char *contentType, std::string &body);
    void handleJson(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader);
    void handleUploadEndpoint(const httplib::Request &req, httplib::Response &res,
                              const httplib::ContentReader &reader);
    void handleList(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader);
    void handleUpload(const httplib::Request &req, httplib::Response &res, const httplib::ContentReader &reader);
    void handleDownload(const httplib::Request &req, httplib::Response &res);
    void handleControl(const httplib::Request &req, httplib::Response &res, const std::string &body);

    QJsonObject supportedFormats() const;

    Store &m_store;
    Faults m_faults;
    std::atomic<bool> m_maintenance{false};
    bool m_quiet = false;
    int m_port = -1;
    std::unique_ptr<httplib::Server> m_server;
};
