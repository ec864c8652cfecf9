#include "sim/RequestHandler.h"

namespace kvx::sim {

using protocol::Opcode;
using protocol::ReplyStatus;

RequestHandler::RequestHandler(const SimOptions& options)
    : m_refuseSessions(options.refuseSessions),
      m_memory(options.memoryLimit, options.denied),
      m_reservations(options.reserveBase, options.reserveSize) {}

void RequestHandler::handle(const protocol::Request& request, protocol::Reply& reply) {
  reply = protocol::Reply();
  reply.opcode = request.opcode;
  reply.id = request.id;
  switch (request.opcode) {
    case Opcode::kHello:
      reply.value = protocol::kProtocolVersion;
      if (m_refuseSessions) {
        reply.status = ReplyStatus::kSessionRefused;
      } else if (request.value != protocol::kProtocolVersion) {
        reply.status = ReplyStatus::kVersionMismatch;
      }
      break;
    case Opcode::kIoWrite:
      reply.status = m_memory.write(request.value, request.data, request.size);
      break;
    case Opcode::kIoRead:
      reply.status = m_memory.read(request.value, reply.data, request.size);
      break;
    case Opcode::kRegWrite:
      reply.status = m_registers.write(request.name, request.value);
      break;
    case Opcode::kRegRead:
      if (!m_registers.read(request.name, reply.value, reply.width))
        reply.status = ReplyStatus::kUnknownRegister;
      break;
    case Opcode::kDdrReserve:
      reply.status = m_reservations.reserve(request.value, reply.value);
      break;
    case Opcode::kDdrUnreserve:
      reply.status = m_reservations.release(request.value);
      break;
    case Opcode::kDdrUnreserveAll:
      m_reservations.releaseAll();
      break;
    case Opcode::kGoodbye:
    case Opcode::kEndSession:
      break;
  }
}

}  // namespace kvx::sim
