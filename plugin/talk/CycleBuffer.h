// The receive buffer of a raw audio-channel connection. The raw session reads
// the client's request into it; a PUT connection then hands it, with the bytes
// that followed the request head, to the talk session, which keeps reading the
// client's audio into it. The storage belongs to the connection's transmitter.
//
// Despite the name the buffer is used linearly: data lies in [nRead, nWrite),
// free space is [nWrite, nSize), and it is compacted to the front after each
// drain.
#ifndef HTTPWRAPPER_TALK_CYCLEBUFFER_H
#define HTTPWRAPPER_TALK_CYCLEBUFFER_H

namespace HttpWrapper {

const int CYCLE_BUFFER_DEFAULT_SIZE = 0x10000;

struct CYCLE_BUFFER {
    char* pBuf = nullptr;  // not owned
    int nSize = CYCLE_BUFFER_DEFAULT_SIZE;
    int nWrite = 0;
    int nRead = 0;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_TALK_CYCLEBUFFER_H
