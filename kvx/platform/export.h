#pragma once

/// KVX_API marks what the shared library exports. The objects that go into the library are
/// compiled with KVX_BUILDING; programs that link the static library define KVX_STATIC.
#if defined(_WIN32)
#if defined(KVX_STATIC)
#define KVX_API
#elif defined(KVX_BUILDING)
#define KVX_API __declspec(dllexport)
#else
#define KVX_API __declspec(dllimport)
#endif
#else
#define KVX_API __attribute__((visibility("default")))
#endif

/// Says that the library has the instances of a template: programs that include it make none of their own.
///
///     KVX_INSTANCES(class, CStringT<WCHAR>);
///
/// MinGW exports of such an instance what isn't inline, and nothing else. A program that links the DLL therefore makes
/// the inline members for itself.
#if defined(_WIN32) && !defined(KVX_STATIC) && !defined(KVX_BUILDING)
#define KVX_INSTANCES(KIND, ...) static_assert(true)
#else
#define KVX_INSTANCES(KIND, ...) extern template KIND KVX_API __VA_ARGS__
#endif

/// What each module has for itself. Data of headers that the loader may share among modules keeps g++'s modules loaded
/// for ever.
#if defined(_WIN32)
#define KVX_PER_MODULE
#else
#define KVX_PER_MODULE __attribute__((visibility("hidden")))
#endif

/// What a module exports under its plain name, for others to look up.
#if defined(_WIN32)
#define KVX_MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define KVX_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif
