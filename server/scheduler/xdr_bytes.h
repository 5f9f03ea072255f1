// Records as bytes, by the routines that put them on the wire.
#pragma once

#include <string>

#include <rpc/rpc.h>

namespace velia::server {

// A record that was decoded, and is given back at the end.
template <class Record, bool_t (*routine)(XDR *, Record *)>
class OwnedRecord {
public:
    explicit OwnedRecord(const std::string &bytes) {
        XDR stream;
        xdrmem_create(&stream, const_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_DECODE);
        is_whole_ = routine(&stream, &record_) != FALSE;
        xdr_destroy(&stream);
    }
    ~OwnedRecord() { xdr_free(reinterpret_cast<xdrproc_t>(routine), &record_); }
    OwnedRecord(const OwnedRecord &) = delete;
    OwnedRecord &operator=(const OwnedRecord &) = delete;

    bool is_whole() const { return is_whole_; }
    Record &get() { return record_; }

private:
    Record record_ = {};
    bool is_whole_ = false;
};

// Empty for a record that cannot be encoded, or is larger than a request can be.
template <class Record>
std::string xdr_bytes(bool_t (*routine)(XDR *, Record *), Record &record) {
    constexpr u_int bytes_max = 65536;
    std::string bytes(bytes_max, '\0');
    XDR stream;
    xdrmem_create(&stream, bytes.data(), bytes_max, XDR_ENCODE);
    const u_int length = routine(&stream, &record) != FALSE ? xdr_getpos(&stream) : 0;
    xdr_destroy(&stream);
    return bytes.substr(0, length);
}

} // namespace velia::server
