// A real HTTP server for the unit tests.
#pragma once

#include <httplib.h>

#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zqu::test {

// Listens on a free loopback port while it lives.
class Server {
public:
    Server() {
        http.set_tcp_nodelay(true);
        http.set_pre_routing_handler([this](const auto& request, auto& response) { return answer(request, response); });
        port_ = http.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { http.listen_after_bind(); });
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

    // From now on; a former answer at the path is replaced.
    void serve(const std::string& path, const std::string& body, int status = 200) { answers_[path] = {body, status}; }

    httplib::Server http;
    std::vector<std::string> requests;

private:
    httplib::Server::HandlerResponse answer(const httplib::Request& request, httplib::Response& response) {
        const auto found = answers_.find(request.target);
        if (found == answers_.end()) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        requests.push_back(request.target);
        response.set_content(found->second.first, "text/plain");
        response.status = found->second.second;
        return httplib::Server::HandlerResponse::Handled;
    }

    std::map<std::string, std::pair<std::string, int>> answers_;
    int port_ = 0;
    std::thread thread_;
};

}  // namespace zqu::test
