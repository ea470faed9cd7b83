// The upload service area of qmmember-server.
#include "MemberServer.h"

namespace {

class UploadArea : public ServiceArea
{
public:
    explicit UploadArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string&) override { return true; }
    void AddRoutes(httplib::Server&, bool) override {}

private:
    MemberServer& m_server;
};

} // namespace

std::unique_ptr<ServiceArea> MakeUploadArea(MemberServer& server)
{
    return std::make_unique<UploadArea>(server);
}
