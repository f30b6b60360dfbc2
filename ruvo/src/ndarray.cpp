#include "ruvo/ndarray.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "orviklog/src/logging.h"
#include "ruvo/io.h"

namespace orvik {
namespace ruvo {

int default_type_flag = kFloat32;

namespace {

// First word of an array record that announces the shape form with 64-bit
// dimensions; any other first word is the dimension count of the legacy
// form with 32-bit dimensions.
constexpr uint32_t kModernShapeMagic = 0xF993FAC8;

// Bytes of slack for the alignment and the pointer kept below the data.
constexpr size_t kAllocSlack = 24;

// Fatal unless `bytes` more bytes can be read from `fi`.  Readers call it
// before they allocate for a length taken from the file, so that a hostile
// length ends at the stream's check instead of in a huge allocation.  Only
// a memory stream knows its end; other streams are trusted.
void RequireBytes(io::Stream* fi, uint64_t bytes) {
  if (auto* mem = dynamic_cast<io::MemoryFixedSizeStream*>(fi)) {
    mem->Require(static_cast<size_t>(bytes));
  }
}

// count * width, saturated: a count too large to multiply is as impossible
// to satisfy as the product.
uint64_t SaturatingBytes(uint64_t count, uint64_t width) {
  if (count > std::numeric_limits<uint64_t>::max() / width) {
    return std::numeric_limits<uint64_t>::max();
  }
  return count * width;
}

// True when the product of the dimensions fits index_t, as Size() assumes.
bool SizeFitsIndex(const TShape& shape) {
  uint64_t size = 1;
  for (index_t d : shape) {
    if (d == 0) return true;
  }
  for (index_t d : shape) {
    size *= d;
    if (size > std::numeric_limits<index_t>::max()) return false;
  }
  return true;
}

}  // namespace

NDArray::Chunk::Chunk(size_t bytes, int dtype) : bytes_(bytes), dtype_(dtype) {
  // Over-allocate, round the start up to 16 bytes, and keep the pointer
  // malloc gave just below the data for free().
  void* raw = std::malloc(bytes + kAllocSlack);
  if (raw == nullptr) return;  // left null, on purpose not reported
  uintptr_t aligned = (reinterpret_cast<uintptr_t>(raw) + kAllocSlack - 1) & ~uintptr_t{15};
  dptr_ = reinterpret_cast<void*>(aligned);
  std::memcpy(reinterpret_cast<char*>(aligned) - sizeof(void*), &raw, sizeof(void*));
}

NDArray::Chunk::Chunk(void* data, size_t bytes, int dtype)
    : dptr_(data), bytes_(bytes), dtype_(dtype), static_data_(true) {}

NDArray::Chunk::~Chunk() {
  if (static_data_ || dptr_ == nullptr) return;
  void* raw;
  std::memcpy(&raw, static_cast<char*>(dptr_) - sizeof(void*), sizeof(void*));
  std::free(raw);
}

NDArray::NDArray(const TShape& shape, int dtype)
    : chunk_(
          std::make_shared<Chunk>(static_cast<size_t>(shape.Size()) * orvik_sizeof(dtype), dtype)),
      shape_(shape),
      dtype_(dtype) {}

NDArray::NDArray(void* data, const TShape& shape, int /*dtype*/)
    : chunk_(std::make_shared<Chunk>(
          data, static_cast<size_t>(shape.Size()) * orvik_sizeof(kFloat32), kFloat32)),
      shape_(shape),
      dtype_(kFloat32) {}

NDArray NDArray::At(index_t idx) const {
  NDArray ret = *this;
  CHECK(!is_none()) << "NDArray is not initialized";
  CHECK_GT(shape_[0], idx) << "index out of range";
  const uint32_t ndim = shape_.ndim();
  index_t step = 1;
  for (uint32_t i = 1; i < ndim; ++i) step *= shape_[i];
  ret.offset_ += static_cast<uint64_t>(idx) * step;
  if (ndim < 2) {
    ret.shape_ = TShape(1);
  } else {
    ret.shape_ = TShape(shape_.begin() + 1, shape_.end());
  }
  return ret;
}

NDArray NDArray::Reshape(const TShape& shape) const {
  CHECK_GE(shape_.Size(), shape.Size())
      << "NDArray.Reshape: target shape size is different from current shape";
  NDArray ret = *this;
  ret.shape_ = shape;
  return ret;
}

NDArray NDArray::AsArray(const TShape& shape, int dtype) const {
  CHECK_GE(shape_.Size() * orvik_sizeof(dtype_), shape.Size() * orvik_sizeof(dtype))
      << "NDArray.AsArray: target memory size is bigger";
  NDArray ret = *this;
  ret.shape_ = shape;
  ret.dtype_ = dtype;
  return ret;
}

NDArray NDArray::Copy() const {
  CHECK(!is_none()) << "NDArray is not initialized";
  NDArray ret(shape_, dtype_);
  ret.shift_ = shift_;
  ret.batch_max_ = batch_max_;
  const size_t bytes = static_cast<size_t>(Size()) * orvik_sizeof(dtype_);
  if (bytes != 0) {
    std::memcpy(ret.chunk_->dptr_,
                static_cast<const char*>(chunk_->dptr_) + offset_ * orvik_sizeof(dtype_), bytes);
  }
  return ret;
}

void NDArray::SyncCopyFrom(const void* data, size_t size) {
  CHECK_EQ(shape_.Size(), size) << "Memory size do not match";
  CHECK(dtype_ > -1 && dtype_ < kUnused) << "Type not initialized!";
  const size_t bytes = TypeSize[dtype_] * size;
  if (bytes == 0) return;
  std::memcpy(static_cast<char*>(chunk_->dptr_) + TypeSize[dtype_] * offset_, data, bytes);
}

void NDArray::SyncCopyTo(void* data, size_t size) const {
  CHECK_EQ(shape_.Size(), size) << "Memory size do not match";
  CHECK(dtype_ > -1 && dtype_ < kUnused) << "Type not initialized!";
  const size_t bytes = TypeSize[dtype_] * size;
  if (bytes == 0) return;
  std::memcpy(data, static_cast<const char*>(chunk_->dptr_) + TypeSize[dtype_] * offset_, bytes);
}

void NDArray::SetCurBatch(index_t batch) {
  CHECK_GE(shape_.ndim(), 1);
  CHECK_GE(batch_max_, batch) << batch << " is greater than max batch size:" << batch_max_;
  shape_[0] = batch;
}

void NDArray::Resize(const TShape& shape) {
  const size_t elem = orvik_sizeof(dtype_);
  const uint64_t need = static_cast<uint64_t>(shape.Size()) * elem;
  const uint64_t have =
      (chunk_ != nullptr && chunk_->dptr_ != nullptr && chunk_->bytes_ >= offset_ * elem)
          ? chunk_->bytes_ - offset_ * elem
          : 0;
  if (need <= have) {
    shape_ = shape;
    return;
  }
  RTC_LOG(LS_INFO) << "NDArray resize new shape=" << shape;
  NDArray fresh(shape, dtype_);
  fresh.shift_ = shift_;
  fresh.batch_max_ = batch_max_;
  *this = std::move(fresh);
}

bool LegacyTShapeLoad(io::Stream* fi, TShape* shape) {
  uint32_t word;
  if (fi->Read(&word, sizeof(word)) != sizeof(word)) return false;
  if (word != kModernShapeMagic) {
    // Legacy form: the word is the dimension count, 32-bit dimensions.
    const size_t nbytes = static_cast<size_t>(word) * sizeof(index_t);
    RequireBytes(fi, nbytes);
    *shape = TShape(word);
    if (nbytes == 0) return true;
    return fi->Read(shape->begin(), nbytes) == nbytes;
  }
  uint32_t ndim;
  if (fi->Read(&ndim, sizeof(ndim)) != sizeof(ndim)) return false;
  const size_t nbytes = static_cast<size_t>(ndim) * sizeof(int64_t);
  RequireBytes(fi, nbytes);
  *shape = TShape(ndim);
  if (nbytes == 0) return true;
  std::vector<int64_t> dims(ndim, 0);
  if (fi->Read(dims.data(), nbytes) != nbytes) return false;
  // Only the low 32 bits of a dimension are kept.
  for (uint32_t i = 0; i < ndim; ++i) {
    (*shape)[i] = static_cast<index_t>(static_cast<uint64_t>(dims[i]));
  }
  return true;
}

bool NDArray::Load(io::Stream* fi) {
  TShape shape;
  if (!LegacyTShapeLoad(fi, &shape)) return false;
  if (shape.ndim() == 0) {
    *this = NDArray();
    return true;
  }
  int32_t dev_type, dev_id, type_flag;
  if (fi->Read(&dev_type, sizeof(dev_type)) != sizeof(dev_type)) return false;
  if (fi->Read(&dev_id, sizeof(dev_id)) != sizeof(dev_id)) return false;
  if (fi->Read(&type_flag, sizeof(type_flag)) != sizeof(type_flag)) {
    return false;
  }
  const size_t elem = orvik_sizeof(type_flag);
  // Size() counts in 32 bits; a product beyond that would allocate less
  // than the shape claims.
  bool shape_size_fits = SizeFitsIndex(shape);
  CHECK(shape_size_fits) << "NDArray.Load: element count of shape " << shape << " exceeds 32 bits";
  const size_t nbytes = static_cast<size_t>(shape.Size()) * elem;
  RequireBytes(fi, nbytes);
  NDArray fresh(shape, type_flag);
  CHECK(fresh.chunk_->dptr_ != nullptr) << "NDArray.Load: out of memory for " << nbytes << " bytes";
  if (nbytes != 0 && fi->Read(fresh.chunk_->dptr_, nbytes) != nbytes) {
    return false;
  }
  *this = std::move(fresh);
  return true;
}

void NDArray::Load(io::Stream* fi, std::vector<NDArray>& data, std::vector<std::string>& names) {
  uint64_t header, reserved;
  CHECK(fi->Read(&header, sizeof(header)) == sizeof(header)) << "Invalid NDArray file format";
  CHECK(fi->Read(&reserved, sizeof(reserved)) == sizeof(reserved)) << "Invalid NDArray file format";
  CHECK(header == kRUVONDArrayListMagic) << "Invalid NDArray file format";
  uint64_t sz;
  CHECK(fi->Read(&sz, sizeof(sz)) == sizeof(sz)) << "Invalid NDArray file format";
  // A record takes at least its 4-byte first word: refuse a count the data
  // cannot hold before sizing the vector for it.
  RequireBytes(fi, SaturatingBytes(sz, sizeof(uint32_t)));
  data.resize(sz);
  for (NDArray& dst : data) {
    CHECK(dst.Load(fi)) << "Invalid NDArray file format";
  }
  CHECK(fi->Read(&sz, sizeof(sz)) == sizeof(sz)) << "Invalid NDArray file format";
  // Likewise for names: at least their 8-byte length each.
  RequireBytes(fi, SaturatingBytes(sz, sizeof(uint64_t)));
  names.resize(sz);
  for (std::string& keystr : names) {
    uint64_t strsz;
    CHECK(fi->Read(&strsz, sizeof(strsz)) == sizeof(strsz)) << "Invalid NDArray file format";
    RequireBytes(fi, strsz);
    keystr.resize(strsz);
    if (strsz == 0) continue;
    const size_t nbytes = strsz;
    CHECK(fi->Read(&keystr[0], nbytes) == nbytes) << "Invalid NDArray file format";
  }
}

bool NDArray::Save(io::Stream* /*fo*/) const { return true; }

void NDArray::Save(io::Stream* /*fo*/, const std::vector<NDArray>& /*data*/,
                   const std::vector<std::string>& /*names*/) {}

std::ostream& operator<<(std::ostream& os, const Tuple<index_t>& t) {
  os << '(';
  for (uint32_t i = 0; i < t.ndim(); ++i) {
    if (i != 0) os << ',';
    os << t[i];
  }
  // A one-element tuple keeps its comma, as in "(3,)".
  if (t.ndim() == 1) os << ',';
  os << ')';
  return os;
}

namespace {

bool IsDigit(int ch) { return ch != EOF && std::isdigit(static_cast<unsigned char>(ch)); }
bool IsSpace(int ch) { return ch != EOF && std::isspace(static_cast<unsigned char>(ch)); }
bool IsClose(int ch) { return ch == ')' || ch == ']'; }

}  // namespace

std::istream& operator>>(std::istream& is, Tuple<index_t>& t) {
  // A bare number, or an opening bracket after optional white space.
  while (true) {
    int ch = is.peek();
    if (IsDigit(ch) || ch == '-') {
      index_t idx;
      if (is >> idx) t.assign(&idx, &idx + 1);
      return is;
    }
    is.get();
    if (ch == '(' || ch == '[') break;
    if (!IsSpace(ch)) {
      is.setstate(std::ios::failbit);
      return is;
    }
  }
  while (IsSpace(is.peek())) is.get();
  // An empty list leaves the target as it was.
  if (IsClose(is.peek())) {
    is.get();
    return is;
  }
  std::vector<index_t> tmp;
  index_t idx;
  while (is >> idx) {
    tmp.push_back(idx);
    int ch;
    do {
      ch = is.get();
    } while (IsSpace(ch));
    if (ch == 'L') ch = is.get();  // tolerated long-integer suffix
    if (ch == ',') {
      while (IsSpace(is.peek())) is.get();
      if (IsClose(is.peek())) {  // trailing comma
        is.get();
        break;
      }
    } else if (IsClose(ch)) {
      break;
    } else {
      is.setstate(std::ios::failbit);
      return is;
    }
  }
  t.assign(tmp.begin(), tmp.end());
  return is;
}

}  // namespace ruvo
}  // namespace orvik
