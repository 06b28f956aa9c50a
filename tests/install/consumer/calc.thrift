// The consumer's own service, as a user's project would have one.
namespace cpp calc

const i32 BLOCK_SIZE = 512

exception DivideByZero {
  1: string message
}

service Calculator {
  i32 divide(1: i32 dividend, 2: i32 divisor) throws (1: DivideByZero oops)
  binary echo(1: binary data)
}
