// A real HTTP server for the unit tests.
#pragma once

#include <httplib.h>

#include <string>
#include <thread>
#include <vector>

namespace zqu::test {

// Listens on a free loopback port while it lives.
class Server {
public:
    Server() : port_(http.bind_to_any_port("127.0.0.1")), thread_([this] { http.listen_after_bind(); }) {
        while (!http.is_running()) {
            std::this_thread::yield();
        }
    }
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void stop() {
        http.stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // Answers with the first part of a body that was announced as longer, then closes the connection.
    void serve_half(const std::string& path, const std::string& half) {
        http.Get(path, [half](const httplib::Request&, httplib::Response& response) {
            response.set_content_provider(half.size() * 2, "text/plain",
                                          [half](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                              return offset == 0 && sink.write(half.data(), half.size());
                                          });
        });
    }

    void serve(const std::string& path, const std::string& body, int status = 200) {
        http.Get(path, [body, status, this](const httplib::Request& request, httplib::Response& response) {
            requests.push_back(request.target);
            response.status = status;
            response.set_content(body, "text/plain");
        });
    }

    httplib::Server http;
    std::vector<std::string> requests;

private:
    int port_;
    std::thread thread_;
};

}  // namespace zqu::test
