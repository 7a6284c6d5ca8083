#ifndef XK_HRESULT_H
#define XK_HRESULT_H

#include <cstdint>

// 32-bit result codes of the value container services and of the library.
// Failure is any negative value.
typedef std::int32_t HRESULT;

#define XK_HR(x) static_cast<HRESULT>(static_cast<std::uint32_t>(x))

#define S_OK XK_HR(0x00000000u)
#define S_FALSE XK_HR(0x00000001u)
#define E_FAIL XK_HR(0x80004005u)
#define E_INVALIDARG XK_HR(0x80070057u)
#define E_OUTOFMEMORY XK_HR(0x8007000Eu)
#define E_UNEXPECTED XK_HR(0x8000FFFFu)
#define E_POINTER XK_HR(0x80004003u)
#define E_NOTIMPL XK_HR(0x80004001u)
#define DISP_E_BADINDEX XK_HR(0x8002000Bu)
#define DISP_E_ARRAYISLOCKED XK_HR(0x8002000Du)
#define DISP_E_BADVARTYPE XK_HR(0x80020008u)

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

#endif
