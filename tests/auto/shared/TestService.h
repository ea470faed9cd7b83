#pragma once

#include "QMMemberWebService.h"

// Reaches the protected members that tests drive directly.
class TestService : public CQMMemberWebService
{
public:
    using CQMMemberWebService::CQMMemberWebService;
    using CQMMemberWebService::RefreshMemberAPIToken;
    using CQMMemberWebService::SaveMemberToken;
};
