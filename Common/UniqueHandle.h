#pragma once
// One move-only owner for every kind of Windows handle the library holds.
// Each handle kind is a traits type with invalid() and close(); the owner
// closes exactly once, on reset() or destruction.
#include <windows.h>
#include <winsvc.h>
#include <setupapi.h>
#include <msi.h>
#include <utility>

template <class Traits>
class UniqueHandle
{
public:
    using type = typename Traits::type;

    UniqueHandle() noexcept : m_h(Traits::invalid()) {}
    explicit UniqueHandle(type h) noexcept : m_h(h) {}
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    UniqueHandle(UniqueHandle&& other) noexcept : m_h(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~UniqueHandle() { reset(); }

    type get() const noexcept { return m_h; }
    // Address for functions that return a handle through an out-parameter;
    // closes what is held first.
    type* put() noexcept
    {
        reset();
        return &m_h;
    }
    type release() noexcept
    {
        type h = m_h;
        m_h = Traits::invalid();
        return h;
    }
    void reset(type h = Traits::invalid()) noexcept
    {
        if (m_h != Traits::invalid())
            Traits::close(m_h);
        m_h = h;
    }
    explicit operator bool() const noexcept { return m_h != Traits::invalid(); }

private:
    type m_h;
};

struct RegKeyTraits
{
    using type = HKEY;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::RegCloseKey(h); }
};
struct ServiceHandleTraits
{
    using type = SC_HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::CloseServiceHandle(h); }
};
struct DevInfoTraits
{
    using type = HDEVINFO;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::SetupDiDestroyDeviceInfoList(h); }
};
struct MsiHandleTraits
{
    using type = MSIHANDLE;
    static type invalid() noexcept { return 0; }
    static void close(type h) noexcept { ::MsiCloseHandle(h); }
};
// Kernel objects whose "no handle" value is null (processes, threads, tokens).
struct KernelHandleTraits
{
    using type = HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};
// Files, snapshots and find handles, whose failure value is INVALID_HANDLE_VALUE.
struct FileHandleTraits
{
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};
struct FindHandleTraits
{
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::FindClose(h); }
};
struct LocalMemoryTraits
{
    using type = HLOCAL;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::LocalFree(h); }
};
// A library loaded with LoadLibraryW.
struct ModuleTraits
{
    using type = HMODULE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::FreeLibrary(h); }
};
struct SidTraits
{
    using type = PSID;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::FreeSid(h); }
};

using UniqueHKey = UniqueHandle<RegKeyTraits>;
using UniqueServiceHandle = UniqueHandle<ServiceHandleTraits>;
using UniqueDevInfo = UniqueHandle<DevInfoTraits>;
using UniqueMsiHandle = UniqueHandle<MsiHandleTraits>;
using UniqueKernelHandle = UniqueHandle<KernelHandleTraits>;
using UniqueFileHandle = UniqueHandle<FileHandleTraits>;
using UniqueFindHandle = UniqueHandle<FindHandleTraits>;
using UniqueLocalMemory = UniqueHandle<LocalMemoryTraits>;
using UniqueSid = UniqueHandle<SidTraits>;
using UniqueModule = UniqueHandle<ModuleTraits>;

// Releases a COM interface it holds.
template <class T>
class ComRef
{
public:
    ComRef() = default;
    ~ComRef()
    {
        if (m_p)
            m_p->Release();
    }
    ComRef(const ComRef&) = delete;
    ComRef& operator=(const ComRef&) = delete;
    T* get() const { return m_p; }
    // Address for functions that return an interface; releases what is held first.
    T** put()
    {
        reset();
        return &m_p;
    }
    void reset()
    {
        if (m_p)
            m_p->Release();
        m_p = nullptr;
    }
    T* operator->() const { return m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p = nullptr;
};
