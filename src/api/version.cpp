// The shared library's own translation unit (its exports come from zel_exports):
// the version it was built as, readable in the file with `strings libzelapi.so`.
namespace ZEL::API {
extern const char kLibraryVersion[];
[[gnu::used]] extern const char kLibraryVersion[] = "libzelapi " ZEL_VERSION;
}  // namespace ZEL::API
