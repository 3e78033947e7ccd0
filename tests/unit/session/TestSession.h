// A standard session whose inner state a test may set and read, and mocks of
// the gateway's filter chain and server sink.
#ifndef TESTS_UNIT_SESSION_TESTSESSION_H
#define TESTS_UNIT_SESSION_TESTSESSION_H

#include <gmock/gmock.h>

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

class MockFilter : public PROTOCOL_FILTER::IProtocolFilter {
public:
    MOCK_METHOD(int, Request, (PROTOCOL_FILTER::IProtocolRequest*, int, PROTOCOL_FILTER::IConnectContext*), (override));
    MOCK_METHOD(int, Response, (PROTOCOL_FILTER::IProtocolResponse*, int, PROTOCOL_FILTER::IConnectContext*),
                (override));
};

class MockSink : public PROTOCOL_WRAPPER::IServerSink {
public:
    MOCK_METHOD(int, OnOpen, (const char*, const char*, PROTOCOL_WRAPPER::IServerData*, void**), (override));
    MOCK_METHOD(int, OnClose, (void*), (override));
    MOCK_METHOD(int, pushStream, (void*), (override));
    MOCK_METHOD(int, OnStart, (void*, int), (override));
    MOCK_METHOD(int, OnStop, (void*, int), (override));
    MOCK_METHOD(int, OnInputData, (void*, int, int, void*, int), (override));
};

#endif  // TESTS_UNIT_SESSION_TESTSESSION_H
