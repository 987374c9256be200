package bank;

import java.io.IOException;
import java.io.PrintStream;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpRequest.BodyPublishers;
import java.net.http.HttpResponse;
import java.net.http.HttpResponse.BodyHandlers;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/** Sends the bank a mix of requests, some of which it has to refuse, and checks the answers. */
final class Client {

  private static final int AT_A_TIME = 4;

  private final HttpClient http = HttpClient.newHttpClient();
  private final PrintStream out;
  private String base;
  private int done;
  private int refused;
  private int wrong;

  Client(PrintStream out) {
    this.out = out;
  }

  int done() {
    return done;
  }

  int refused() {
    return refused;
  }

  int wrong() {
    return wrong;
  }

  private record Answer(String request, boolean isDone, boolean isExpected, String text) {}

  void send(int port, int requests) throws InterruptedException, ExecutionException {
    base = "http://127.0.0.1:" + port;
    final ExecutorService customers = Executors.newFixedThreadPool(AT_A_TIME);
    final List<Future<Answer>> answers = new ArrayList<>();
    for (int n = 0; n < requests; ++n) {
      final int kind = n % 7;
      answers.add(customers.submit(() -> send(kind)));
    }
    customers.shutdown();
    for (Future<Answer> answer : answers) count(answer.get());
  }

  private void count(Answer answer) {
    if (answer.isDone) ++done;
    else ++refused;
    if (!answer.isExpected) ++wrong;
    out.printf(
        "%-8s %-50s %s%s%n",
        answer.isDone ? "done" : "refused", answer.request, answer.text,
        answer.isExpected ? "" : "  WRONG");
  }

  private Answer send(int kind) throws IOException, InterruptedException {
    switch (kind) {
      case 0:
        return transfer("110-201-000011", "140-700-000019", 1000, "박도윤");
      case 1:
        return get("balance?account=110-201-000022", "이서연");
      case 2:
        return transfer("140-700-000019", "110-201-000022", 900_000_000, "잔액이 부족합니다.");
      case 3:
        return telegram("140-700-000027", "최하은");
      case 4:
        return telegram("999-999-999999", "없는 계좌번호입니다.");
      case 5:
        return transfer("140-700-000027", "110-201-000011", 2500, "김민준");
      default:
        return half();
    }
  }

  private Answer transfer(String from, String to, long amount, String expected)
      throws IOException, InterruptedException {
    return get("transfer?from=" + from + "&to=" + to + "&amount=" + amount, expected);
  }

  private Answer get(String request, String expected) throws IOException, InterruptedException {
    final HttpResponse<String> response =
        http.send(
            HttpRequest.newBuilder(URI.create(base + "/" + request)).build(),
            BodyHandlers.ofString(StandardCharsets.UTF_8));
    final String text = response.body();
    return new Answer(
        request.replace("-000", "…"), response.statusCode() == 200, text.contains(expected), text);
  }

  private Answer telegram(String account, String expected)
      throws IOException, InterruptedException {
    final Telegram request =
        Telegram.carrying(account)
            .set(Telegram.Field.GLBL_ID, Gid.next())
            .set(Telegram.Field.TRMS_SYS_CD, "ATM")
            .set(Telegram.Field.RQST_RSPS_DV_CD, "S")
            .set(Telegram.Field.RECV_SVC_CD, "JBKBAL002V01")
            .set(Telegram.Field.CHNL_TYP_CD, "ATM");
    final Telegram response = new Telegram(post(request.bytes()).body());
    final String text = response.body();
    return new Answer(
        "telegram [" + account + "]",
        response.get(Telegram.Field.PROC_RSLT_DV_CD).equals("0"),
        response.isWhole() && text.contains(expected),
        text);
  }

  // A telegram that was cut on its way.
  private Answer half() throws IOException, InterruptedException {
    final byte[] cut = "00000700half a telegram".getBytes(StandardCharsets.US_ASCII);
    final int status = post(cut).statusCode();
    return new Answer("half a telegram", false, status == 400, "status " + status);
  }

  private HttpResponse<byte[]> post(byte[] body) throws IOException, InterruptedException {
    return http.send(
        HttpRequest.newBuilder(URI.create(base + "/telegram"))
            .POST(BodyPublishers.ofByteArray(body))
            .build(),
        BodyHandlers.ofByteArray());
  }
}
