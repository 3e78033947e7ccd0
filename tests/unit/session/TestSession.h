// A standard session whose inner state a test may set and read.
#ifndef TESTS_UNIT_SESSION_TESTSESSION_H
#define TESTS_UNIT_SESSION_TESTSESSION_H

#include "session/HttpSession.h"

class TestSession : public HttpWrapper::CHttpSession {
public:
    using CHttpSession::CHttpSession;
    using CHttpSession::m_framing;
    using CHttpSessionBase::m_pSessionHandle;
    using CHttpSessionBase::m_strAuthorization;
    using CHttpSessionBase::m_strDownloadRange;
    using CHttpSessionBase::m_strMethod;
    using CHttpSessionBase::m_strPlaybackURI;
};

#endif  // TESTS_UNIT_SESSION_TESTSESSION_H
