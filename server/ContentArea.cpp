// The content service area of qmmember-server.
#include "MemberServer.h"

namespace {

class ContentArea : public ServiceArea
{
public:
    explicit ContentArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string&) override { return true; }
    void AddRoutes(httplib::Server&, bool) override {}

private:
    MemberServer& m_server;
};

} // namespace

std::unique_ptr<ServiceArea> MakeContentArea(MemberServer& server)
{
    return std::make_unique<ContentArea>(server);
}
