package bank;

import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import com.vexholm.tran.Tran;
import com.vexholm.tran.Transaction;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.charset.StandardCharsets;
import java.sql.SQLException;
import java.util.HashMap;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;

/** The bank's doors: each request is one transaction. */
final class Server implements AutoCloseable {

  private static final int WORKERS = 4;
  private static final int OK = 200;
  private static final int BAD_REQUEST = 400;
  private static final int CONFLICT = 409;
  private static final int FAILED = 500;

  private final Service service;
  private final ExecutorService workers = Executors.newFixedThreadPool(WORKERS);
  private final HttpServer http;

  Server(Service service) throws IOException {
    this.service = service;
    http = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
    http.setExecutor(workers);
    http.createContext("/transfer", exchange -> serve(exchange, "JBKXFER01", this::transfer));
    http.createContext("/balance", exchange -> serve(exchange, "JBKBAL001", this::balance));
    http.createContext("/telegram", this::serveTelegram);
    http.start();
  }

  int port() {
    return http.getAddress().getPort();
  }

  // A worker has answered before its transaction ends: the agent is not stopped until then.
  @Override
  public void close() throws InterruptedException {
    http.stop(0);
    workers.shutdown();
    if (!workers.awaitTermination(10, TimeUnit.SECONDS)) workers.shutdownNow();
  }

  // ---- Requests with parameters ----

  private interface Business {
    String of(Map<String, String> parameters) throws Refusal, SQLException;
  }

  private String transfer(Map<String, String> parameters) throws Refusal, SQLException {
    final String from = parameters.get("from");
    final String to = parameters.get("to");
    final String amount = parameters.get("amount");
    Tran.info("이체 접수 [" + from + " -> " + to + ", " + amount + "원]");
    return service.transfer(from, to, Long.parseLong(amount)) + "님께 이체하였습니다.";
  }

  private String balance(Map<String, String> parameters) throws Refusal, SQLException {
    return service.balance(parameters.get("account"));
  }

  private void serve(HttpExchange exchange, String svcId, Business business) throws IOException {
    try (Transaction tx =
        Tran.transaction(Gid.next(), svcId).chnlTypCd("WEB").recvSvcCd(svcId).start()) {
      try {
        final String text = business.of(parameters(exchange));
        tx.procRsltDvCd("0");
        answer(exchange, OK, text.getBytes(StandardCharsets.UTF_8));
      } catch (Refusal e) {
        tx.procRsltDvCd("1").stdTmsgErrCd(e.code()).error("1001", e.getMessage());
        answer(exchange, CONFLICT, e.getMessage().getBytes(StandardCharsets.UTF_8));
      } catch (SQLException | RuntimeException e) {
        tx.procRsltDvCd("9").stdTmsgErrCd("JBK009000").error("9000", e.toString());
        answer(exchange, FAILED, new byte[0]);
      }
    }
  }

  private static Map<String, String> parameters(HttpExchange exchange) {
    final Map<String, String> parameters = new HashMap<>();
    final String query = exchange.getRequestURI().getQuery();
    for (String pair : (query == null ? "" : query).split("&")) {
      final int equals = pair.indexOf('=');
      if (equals > 0) parameters.put(pair.substring(0, equals), pair.substring(equals + 1));
    }
    return parameters;
  }

  // ---- Whole telegrams ----

  private void serveTelegram(HttpExchange exchange) throws IOException {
    final Telegram request = new Telegram(exchange.getRequestBody().readAllBytes());
    if (!request.isWhole()) {
      Tran.event("2101", "전문 길이가 올바르지 않습니다. [" + request.bytes().length + "]");
      answer(exchange, BAD_REQUEST, new byte[0]);
      return;
    }
    final String gid = request.get(Telegram.Field.GLBL_ID);
    final String svcId = request.get(Telegram.Field.RECV_SVC_CD);
    try (Transaction tx = Tran.start(gid, svcId, request.bytes(), request.param())) {
      final Telegram response = respond(request);
      tx.response(response.bytes(), response.param().message(response.body()));
      answer(exchange, OK, response.bytes());
    }
  }

  private Telegram respond(Telegram request) {
    try {
      return request.answer(service.balance(request.body()), "0", "");
    } catch (Refusal e) {
      return request.answer(e.getMessage(), "1", e.code());
    } catch (SQLException | RuntimeException e) {
      return request.answer(e.toString(), "9", "JBK009000");
    }
  }

  private static void answer(HttpExchange exchange, int status, byte[] body) throws IOException {
    exchange.sendResponseHeaders(status, body.length == 0 ? -1 : body.length);
    try (OutputStream out = exchange.getResponseBody()) {
      out.write(body);
    }
  }
}
