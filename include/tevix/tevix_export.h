/* Export and linkage macros shared by every public tevix header. */
#ifndef TEVIX_EXPORT_H
#define TEVIX_EXPORT_H

#if defined(_WIN32)
#if defined(TEVIX_BUILDING_LIBRARY)
#define TEVIX_API __declspec(dllexport)
#else
#define TEVIX_API __declspec(dllimport)
#endif
#else
#define TEVIX_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define TEVIX_EXTERN_C_BEGIN extern "C" {
#define TEVIX_EXTERN_C_END }
/* Every exported function is noexcept on the C++ side: no exception crosses the C border. */
#define TEVIX_NOEXCEPT noexcept
#else
#define TEVIX_EXTERN_C_BEGIN
#define TEVIX_EXTERN_C_END
#define TEVIX_NOEXCEPT
#endif

#if defined(__GNUC__) || defined(__clang__)
#define TEVIX_PRINTF(fmt_idx, args_idx) __attribute__((format(printf, fmt_idx, args_idx)))
#else
#define TEVIX_PRINTF(fmt_idx, args_idx)
#endif

#endif
