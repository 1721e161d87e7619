// What GLib hands out, given back with its object.
#pragma once

#include <gio/gio.h>

#include <memory>

namespace keyring {

struct GiveBack {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GVariantIter* iterator) const { g_variant_iter_free(iterator); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(char* text) const { g_free(text); }
    template <class T>
    void operator()(T* object) const {
        g_object_unref(object);
    }
};
template <class T>
using Handle = std::unique_ptr<T, GiveBack>;

// Where a function of GLib puts its error.
class ErrorPlace {
public:
    explicit ErrorPlace(Handle<GError>& error) : mError(error) {}
    ~ErrorPlace() { mError.reset(mPlace); }
    ErrorPlace(const ErrorPlace&) = delete;
    ErrorPlace& operator=(const ErrorPlace&) = delete;
    operator GError**() { return &mPlace; }

private:
    Handle<GError>& mError;
    GError* mPlace = nullptr;
};

}  // namespace keyring
