// The shared library's own translation unit; its exports come from zel_exports.
namespace ZEL::API {
extern const char kLibraryName[] = "libzelapi";
}
