namespace corvalin::router {}
