#include "tools/cloud/ConsolePage.h"

#include <cstring>
#include <string>

namespace ZelCloud {

namespace {

void Serve(const ConsolePage::File& file, httplib::Response& res) {
    res.set_header("Cache-Control", "no-cache");
    res.set_content(reinterpret_cast<const char*>(file.bytes), file.size, file.type);
}

}  // namespace

const ConsolePage::File* ConsolePage::Find(const char* name) {
    for (size_t i = 0; i < kCount; ++i) {
        if (strcmp(kFiles[i].name, name) == 0) {
            return &kFiles[i];
        }
    }
    return nullptr;
}

void ConsolePage::route(httplib::Server& server) {
    auto page = [](const httplib::Request&, httplib::Response& res) {
        Serve(*Find("index.html"), res);
    };
    server.Get("/", page);
    server.Get("/console", page);
    server.Get("/console/", page);
    server.Get("/console/([a-z]+\\.(?:css|js|html))",
               [](const httplib::Request& req, httplib::Response& res) {
                   const File* file = Find(req.matches[1].str().c_str());
                   if (file == nullptr) {
                       res.status = 404;
                       res.set_content("no such file\n", "text/plain");
                       return;
                   }
                   Serve(*file, res);
               });
}

}  // namespace ZelCloud
